// Links neither bridge nor modules: loads them apart, from its own folder, as an app does.
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

TEST(Modules, ExchangePayloadsAndUnloadOneByOne) {
  const Module bridge("com.quenmar.zorvix"), receiver("hidden");
  BIND(receiver.library, Receive)();
  for (const int round : {1, 2}) {
    const Module sender("unlinked");
    EXPECT_TRUE(BIND(sender.library, Send)(bridge.library)) << round;
    EXPECT_TRUE(sender.Unload()) << round;
  }
  BIND(receiver.library, Leave)();
  EXPECT_TRUE(receiver.Unload());
  for (const auto& line : TakeLog()) EXPECT_EQ(line[0], 'I') << line;
  const Module late("unlinked");
  EXPECT_FALSE(BIND(late.library, Send)(bridge.library));
  EXPECT_FALSE(bridge.Unload());
}

TEST(Modules, ShareAStateWhoeverComesFirst) {
  const Module bridge("com.quenmar.zorvix");
  for (const bool holder_first : {true, false}) {
    const Module one("hidden"), two("visible");
    int newest = 0;
    if (holder_first) BIND(one.library, Hold)(7);
    BIND(two.library, Watch)(&newest);
    EXPECT_EQ(newest, holder_first ? 7 : 0);
    if (!holder_first) BIND(one.library, Hold)(7);
    EXPECT_EQ(newest, 7);
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
