// Modules that are loaded apart, as an app loads them, exchange payloads of all kinds. This program
// does not link the bridge: it loads bridge and modules with RTLD_LOCAL, from its own folder.
#include <gtest/gtest.h>

#include "log_capture.h"
#include "modules/payload.h"

namespace {

std::string folder;

struct Module {
  explicit Module(const std::string& name)
      : path(folder + "lib" + name + ".so"), library(dlopen(path.c_str(), RTLD_LOCAL | RTLD_NOW)) {
    if (library == nullptr) throw std::runtime_error(dlerror());
  }
  bool Unload() const {  // and return whether the code is gone
    return dlclose(library) == 0 && dlopen(path.c_str(), RTLD_NOLOAD | RTLD_NOW) == nullptr;
  }
  std::string path;
  void* library;
};

TEST(Modules, ExchangePayloadsOfAllKindsAndUnloadOneByOne) {
  const Module bridge("com.quenmar.zorvix"), receiver("hidden");
  BIND(receiver.library, Receive)();
  int received = 0;
  for (const auto* name : {"unlinked", "visible"}) {
    SCOPED_TRACE(name);
    const Module sender(name);
    EXPECT_EQ(BIND(sender.library, Send)(bridge.library), 2 * kExchanges);
    EXPECT_EQ(BIND(receiver.library, Received)(), received += kExchanges);
    EXPECT_TRUE(sender.Unload());
  }
  BIND(receiver.library, Leave)();
  EXPECT_TRUE(receiver.Unload());
  for (const auto& line : TakeLog()) EXPECT_EQ(line[0], 'I') << line;
  const Module late("unlinked");
  EXPECT_EQ(BIND(late.library, Send)(bridge.library), 0);
  EXPECT_TRUE(late.Unload());
  EXPECT_FALSE(bridge.Unload());
}

TEST(Modules, ShareAStateInWhateverOrderTheyComeAndLeave) {
  const Module bridge("com.quenmar.zorvix");
  for (const int order : {0, 1, 2, 3}) {
    SCOPED_TRACE(order);
    const Module one("hidden"), two("visible");
    const auto hold = BIND(one.library, Hold);
    const auto watch = BIND(two.library, Watch);
    if (order < 2) hold(1);
    EXPECT_EQ(watch(), order < 2 ? 1 : 0);
    hold(2);
    EXPECT_EQ(watch(), 2);
    if (order % 2 == 0) BIND(one.library, Leave)();
    EXPECT_EQ(watch(), 2);
    for (const auto* module : {&two, &one}) BIND(module->library, Leave)();
    EXPECT_TRUE(one.Unload() && two.Unload());
  }
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const std::string program = argv[0];
  folder = program.substr(0, program.rfind('/') + 1);
  return RUN_ALL_TESTS();
}
