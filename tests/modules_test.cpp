// Links neither bridge nor modules: loads them apart, as an app does.
#include <gtest/gtest.h>

#include "log_capture.h"
#include "modules/payload.h"

namespace {

TEST(Modules, ExchangePayloadsAndAreUnloadedOneByOne) {
  const Module bridge("com.quenmar.zorvix");
  const Module receiver("hidden");
  BIND(receiver, Receive)();

  for (const int round : {1, 2}) {
    const Module sender("unlinked");
    EXPECT_TRUE(BIND(sender, Send)(bridge)) << round;
    EXPECT_TRUE(sender.Unload()) << round;
  }
  BIND(receiver, Leave)();

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

    if (holder_first) BIND(holder, Hold)(7);
    BIND(watcher, Watch)(&newest);
    EXPECT_EQ(newest, holder_first ? 7 : 0);
    if (!holder_first) BIND(holder, Hold)(7);

    EXPECT_EQ(newest, 7);
    BIND(watcher, Leave)();
    BIND(holder, Leave)();
    EXPECT_TRUE(holder.Unload() && watcher.Unload());
  }
}

// The module that has the first handle of the process makes what all modules share.
TEST(Modules, FirstModuleWithHandlesIsUnloadedWhileOthersGoOn) {
  const Module bridge("com.quenmar.zorvix");
  const Module first("hidden");
  EXPECT_EQ(BIND(first, UseAll)(), 7);
  const Module second("visible");
  int newest = 0;
  BIND(second, Watch)(&newest);

  EXPECT_TRUE(first.Unload());

  EXPECT_EQ(BIND(second, UseAll)(), 7);
  const Module again("hidden");
  BIND(again, Hold)(7);
  EXPECT_EQ(newest, 7);
  for (const auto* module : {&second, &again}) BIND(*module, Leave)();
  EXPECT_TRUE(second.Unload() && again.Unload());
}

}  // namespace
