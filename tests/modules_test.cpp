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
  // Returns whether the code is no longer in memory.
  bool Unload() const {
    return dlclose(library) == 0 && dlopen(path.c_str(), RTLD_NOLOAD | RTLD_NOW) == nullptr;
  }
  const std::string path;
  void* const library;
};

TEST(Modules, ExchangePayloadsAndAreUnloadedOneByOne) {
  const Module bridge("com.quenmar.zorvix");
  const Module receiver("hidden");
  BIND(receiver.library, Receive)();

  for (const int round : {1, 2}) {
    const Module sender("unlinked");
    EXPECT_TRUE(BIND(sender.library, Send)(bridge.library)) << round;
    EXPECT_TRUE(sender.Unload()) << round;
  }
  BIND(receiver.library, Leave)();

  for (const auto& line : TakeLog()) EXPECT_EQ(line[0], 'I') << line;
  EXPECT_TRUE(receiver.Unload());
  EXPECT_FALSE(bridge.Unload());
}

TEST(Modules, ShareAStateWhoeverIsFirst) {
  const Module bridge("com.quenmar.zorvix");
  for (const bool holder_first : {true, false}) {
    const Module holder("hidden");
    const Module watcher("visible");
    int newest = 0;

    if (holder_first) BIND(holder.library, Hold)(7);
    BIND(watcher.library, Watch)(&newest);
    EXPECT_EQ(newest, holder_first ? 7 : 0);
    if (!holder_first) BIND(holder.library, Hold)(7);

    EXPECT_EQ(newest, 7);
    BIND(watcher.library, Leave)();
    BIND(holder.library, Leave)();
    EXPECT_TRUE(holder.Unload() && watcher.Unload());
  }
}

// The module that has the first handle of the process makes what all modules share.
TEST(Modules, FirstModuleWithHandlesIsUnloadedWhileOthersGoOn) {
  const Module bridge("com.quenmar.zorvix");
  const Module first("hidden");
  EXPECT_EQ(BIND(first.library, UseAll)(), 7);
  const Module second("visible");
  int newest = 0;
  BIND(second.library, Watch)(&newest);

  EXPECT_TRUE(first.Unload());

  EXPECT_EQ(BIND(second.library, UseAll)(), 7);
  const Module again("hidden");
  BIND(again.library, Hold)(7);
  EXPECT_EQ(newest, 7);
  for (const auto* module : {&second, &again}) BIND(module->library, Leave)();
  EXPECT_TRUE(second.Unload() && again.Unload());
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const std::string program = argv[0];
  folder = program.substr(0, program.rfind('/') + 1);
  return RUN_ALL_TESTS();
}
