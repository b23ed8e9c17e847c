// Modules that are loaded apart, as an app loads them, exchange payloads of all kinds. This program
// does not link the bridge: it loads bridge and modules with RTLD_LOCAL, from its own folder.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <zorvix/zorvix_flat.h>

#include "log_capture.h"
#include "modules/payload.h"

using bridge::BridgeType;

namespace {

std::string folder;

struct Module {
  explicit Module(const std::string& name)
      : path(folder + "lib" + name + ".so"), library(dlopen(path.c_str(), RTLD_LOCAL | RTLD_NOW)) {
    if (library == nullptr) throw std::runtime_error(dlerror());
  }
  template <typename Function>
  Function* Get(const char* name) const {
    return reinterpret_cast<Function*>(dlsym(library, name));
  }
  bool Unload() const {  // and return whether the code is gone
    return dlclose(library) == 0 && dlopen(path.c_str(), RTLD_NOLOAD | RTLD_NOW) == nullptr;
  }
  std::string path;
  void* library;
};

TEST(Modules, ExchangePayloadsOfAllKindsAndUnloadOneByOne) {
  const Module bridge("com.quenmar.zorvix");
  for (const auto type : {BridgeType::Sync, BridgeType::Async}) {
    const Module receiver("receiver");
    receiver.Get<decltype(Start)>("Start")(type);
    int received = 0;
    for (const auto* name : {"sender_dlsym", "sender_typed"}) {
      SCOPED_TRACE(name);
      const Module sender(name);
      EXPECT_EQ(sender.Get<decltype(Send)>("Send")(type, bridge.library), 2 * kPayloads);
      bridge.Get<decltype(ZorvixSpinOnce)>("ZorvixSpinOnce")();
      EXPECT_EQ(sender.Get<decltype(Answered)>("Answered")(), kPayloads);
      EXPECT_EQ(receiver.Get<decltype(Received)>("Received")(), received += kPayloads);
      EXPECT_TRUE(sender.Unload());
    }
    receiver.Get<decltype(Stop)>("Stop")();
    EXPECT_TRUE(receiver.Unload());
    for (const auto& line : TakeLog()) EXPECT_EQ(line[0], 'I') << line;
    const Module late("sender_dlsym");
    EXPECT_EQ(late.Get<decltype(Send)>("Send")(type, bridge.library), 0);
    EXPECT_TRUE(late.Unload());
    TakeLog();
  }
}

TEST(Modules, ShareAStateInWhateverOrderTheyComeAndLeave) {
  const Module bridge("com.quenmar.zorvix");
  for (const int order : {0, 1, 2, 3}) {
    SCOPED_TRACE(order);
    const Module one("state_one"), two("state_two");
    const auto hold = one.Get<decltype(Hold)>("Hold");
    const auto watch = two.Get<decltype(Watch)>("Watch");
    if (order < 2) hold(1);
    EXPECT_EQ(watch(), order < 2 ? 1 : 0);
    hold(2);
    EXPECT_EQ(watch(), 2);
    if (order % 2 == 0) one.Get<decltype(Leave)>("Leave")();
    EXPECT_EQ(watch(), 2);
    for (const auto* module : {&two, &one}) module->Get<decltype(Leave)>("Leave")();
    EXPECT_TRUE(one.Unload() && two.Unload());
  }
}

TEST(Modules, BridgeOutlivesItsLastHandle) {
  std::shared_ptr<const bridge::Control> topic = std::make_shared<bridge::Control>(
      bridge::Control{"t", bridge::BridgeModule::Topic, BridgeType::Async});
  int received = 0;
  const auto count =
      std::make_shared<std::function<void(const std::any&)>>([&](auto&) { ++received; });
  const Module before("com.quenmar.zorvix");
  before.Get<decltype(ZorvixRegisterSubscriber)>("ZorvixRegisterSubscriber")(topic, count);
  before.Get<decltype(ZorvixPublish)>("ZorvixPublish")(topic, 1);
  EXPECT_FALSE(before.Unload());
  const Module after("com.quenmar.zorvix");
  after.Get<decltype(ZorvixSpinOnce)>("ZorvixSpinOnce")();
  EXPECT_EQ(received, 1);
  after.Get<decltype(ZorvixUnregisterSubscriber)>("ZorvixUnregisterSubscriber")(topic, 0);
}

TEST(Modules, LinkedWithNodeleteRunAfterTheirLastHandleToo) {
  const Module bridge("com.quenmar.zorvix"), staying("staying"), sender("sender_typed");
  const auto received = staying.Get<decltype(Received)>("Received");
  const auto stop = staying.Get<decltype(Stop)>("Stop");
  staying.Get<decltype(Start)>("Start")(BridgeType::Sync);
  EXPECT_FALSE(staying.Unload());
  sender.Get<decltype(Send)>("Send")(BridgeType::Sync, bridge.library);
  EXPECT_EQ(received(), kPayloads);
  stop();
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const std::string program = argv[0];
  folder = program.substr(0, program.rfind('/') + 1);
  return RUN_ALL_TESTS();
}
