// A service on the plain interface: the bridge passes the server's function to the client's
// request, which calls it.
#include <zorvix/zorvix.h>

#include <cstdio>
#include <string>

using bridge::BridgeModule;
using bridge::BridgeType;
using bridge::Control;
using bridge::Zorvix;
using Server = std::function<void(const std::any&, std::any&)>;

int main() {
  auto& bridge = Zorvix::GetInstance();
  std::shared_ptr<const Control> server =
      std::make_shared<Control>(Control{"length", BridgeModule::Service, BridgeType::Sync});
  std::shared_ptr<const Control> client = std::make_shared<Control>(*server);
  bridge.RegisterServer(server,
                        std::make_shared<Server>([](const std::any& request, std::any& response) {
                          response = std::any_cast<const std::string&>(request).size();
                        }));
  bridge.RegisterClient(client);

  std::size_t length = 0;
  const bool called = bridge.Call(client, [&](const Server& serve) {
    std::any response;
    serve(std::string("bridge"), response);
    length = std::any_cast<std::size_t>(response);
  });
  std::printf("length of \"bridge\": %zu\n", length);

  bridge.UnregisterServer(server, 0);
  bridge.UnregisterClient(client);
  return called && length == 6 ? 0 : 1;
}
