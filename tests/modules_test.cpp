// Links neither bridge nor modules: loads them apart, as an app does.
#include <zorvix/zorvix_flat.h>

#include <map>

#include "log_capture.h"
#include "modules/payload.h"
#include "threads.h"

// In place of the function with which the library of the handles makes the names of types readable:
// so that tests can hold it while it reads them.
extern "C" ZORVIX_EXPORT char* __cxa_demangle(const char* name, char*, std::size_t*, int* status) {
  AddLine(std::string("names the type ") + name);
  *status = -1;
  return nullptr;
}

namespace {

// Loads the libraries first. Android's loader would otherwise unload the module that has brought
// them only together with all others.
class Modules : public testing::Test {
 private:
  const Module handles_{"com.quenmar.zorvix.handles"};
};

const std::string kStaysLoaded = "a module stays loaded, even after dlclose: ";

TEST_F(Modules, ExchangePayloadsWithOneThatHasNoHandles) {
  const Module bridge("com.quenmar.zorvix");
  const Module receiver("answers");
  BIND(receiver, Receive)();

  for (const int round : {1, 2}) {
    const Module sender("unlinked");
    EXPECT_TRUE(BIND(sender, Send)(bridge)) << round;
    EXPECT_TRUE(sender.Unload()) << round;
  }
  BIND(receiver, Leave)();

  // The sender has had answers, which code of the receiver destroys.
  EXPECT_FALSE(receiver.Unload());
  const Lines log = TakeLog();
  for (const auto& line : log) EXPECT_EQ(line[0], 'I') << line;
  EXPECT_EQ(Count(log, kStaysLoaded), 1u);
  EXPECT_EQ(Count(log, kStaysLoaded + "libanswers.so, since a client without a handle has an "
                                      "answer of it, name: number"),
            1u);
  EXPECT_FALSE(bridge.Unload());
}

TEST_F(Modules, StayLoadedIfTheirCodeMustOutliveTheirHandles) {
  const std::string async = "it uses an Async or SignleAsync endpoint, name: async";
  const std::string thrown = "it has thrown what is no std::exception, name: traced";
  const std::string post = "it has posted a task to an inbox of another module, name: inbox";
  const Module owner("visible");
  zorvix::Inbox* const inbox = BIND(owner, MakeInbox)();
  for (const auto& [name, reason] : std::map<std::string, std::string>{
           {"async_publisher", async},
           {"async_subscriber", async},
           {"async_client", async},
           {"async_server", async},
           {"posts", post},
           {"throws", thrown},
           {"throws_in_drain", thrown},
       }) {
    SCOPED_TRACE(name);
    const Module module(name);
    TakeLog();

    for (int i = 0; i < 2; ++i) {
      if (reason == post) {
        BIND(module, Post)(inbox);
      } else {
        BIND(module, Do)(name.c_str());
      }
    }
    BIND(module, Leave)();

    EXPECT_FALSE(module.Unload());
    const Lines log = TakeLog();
    EXPECT_EQ(Count(log, kStaysLoaded), 1u);
    std::string line = kStaysLoaded;
    line.append("lib").append(name).append(".so, since ").append(reason);
    EXPECT_EQ(Count(log, line), 1u);
  }
  BIND(owner, Post)(inbox);
  BIND(owner, Leave)();
  EXPECT_TRUE(owner.Unload());
}

TEST_F(Modules, StayLoadedUntilTheLastOfTheirValuesIsDestroyed) {
  const Module holder("hidden");
  const Module watcher("visible");
  const Reading* newest = nullptr;
  BIND(holder, Hold)(7);
  BIND(watcher, Watch)(&newest);

  BIND(holder, Leave)();
  EXPECT_FALSE(holder.Unload());
  EXPECT_EQ(newest->value, 7);
  BIND(watcher, Leave)();

  EXPECT_FALSE(holder.IsLoaded());
  EXPECT_TRUE(watcher.Unload());
}

TEST_F(Modules, ValuesOfAStaticHolderAreNeverDestroyed) {
  static const Reading* newest = nullptr;  // where a search for leaks finds the value
  const Module statics("statics");
  const Module watcher("visible");
  BIND(watcher, Watch)(&newest);

  EXPECT_TRUE(statics.Unload());

  EXPECT_EQ(newest->value, 7);
  BIND(watcher, Leave)();
  EXPECT_EQ(newest->value, 7);
  EXPECT_TRUE(watcher.Unload());
}

// A thread of the peer, which a line of the log holds while it is inside the module's code, or
// later. If the thread is inside, the destructor of the module's handle waits for it: without that,
// dlclose would unload the code.
struct Use {
  const char* peer_first;
  const char* module_has;
  const char* peer_does;
  const char* held;
  bool is_inside;
};
constexpr Use kUses[] = {
    {"", "subscribe", "publish", "visible is invoked", true},
    {"", "subscribe with an inbox", "publish", "visible copies", true},
    {"", "subscribe with an inbox", "publish twice", "visible destroys", true},
    {"", "fail on a thread", "publish", "error: failure of visible", true},
    {"", "serve", "call", "visible moves", true},
    {"", "serve on a thread", "call", "visible moves", true},
    {"serve on a thread", "call with an inbox", "", "hidden moves", true},
    {"", "watch", "set", "visible is invoked", true},
    {"", "count subscribers", "subscribe", "visible is invoked", true},
    // While the types are named, for the log line that says that they differ:
    {"", "subscribe to another type", "publish", "names the type", true},
    {"", "subscribe to another type with an inbox", "publish", "names the type", true},
    {"", "serve another type with an inbox", "call", "names the type", true},
    {"", "watch another type", "set", "names the type", true},
    {"", "hold", "watch another type", "names the type", true},
    // While the bridge logs what has been thrown:
    {"", "fail", "publish", "error: failure of visible", false},
    {"", "fail to copy", "publish", "error: failure of visible", false},
    {"", "subscribe to another type", "publish", "error: bad any_cast", false},
};

TEST_F(Modules, AreUnloadedWhenNoThreadIsInside) {
  const Module peer("hidden");
  for (const auto& use : kUses) {
    SCOPED_TRACE(std::string(use.module_has) + ", " + use.held);
    const Module module("visible");
    BIND(peer, Do)(use.peer_first);
    TakeLog();
    HoldLog(use.held);

    BIND(module, Do)(use.module_has);
    auto use_by_peer = InBackground(BIND(peer, Do), use.peer_does);
    WaitForLog(use.held);
    auto unload = InBackground([&] {
      BIND(module, Leave)();
      return module.Unload();
    });
    if (use.is_inside) {
      WaitForLog("a destructor waits for its callable to return, name: traced");
    } else {
      unload.wait();
    }
    HoldLog("");

    use_by_peer.get();
    EXPECT_TRUE(unload.get());
    for (const auto& line : TakeLog()) {
      if (line.find("bad any_cast") == std::string::npos) continue;
      EXPECT_NE(line.find(": libhidden.so, "), std::string::npos) << line;
      EXPECT_NE(line.find(": libvisible.so, "), std::string::npos) << line;
    }
    BIND(peer, Leave)();
  }
  EXPECT_TRUE(peer.Unload());
}

TEST_F(Modules, AreNamedWhenTheirHandlesReplaceEachOther) {
  const Module first("hidden");
  const Module second("visible");
  for (const auto& [action, kind] : {std::pair("serve", "Server"), std::pair("hold", "Holder")}) {
    const std::string handle = ", kind: " + std::string(kind) + ", name: traced, module: ";
    BIND(first, Do)(action);
    BIND(second, Do)(action);
    BIND(second, Leave)();

    const Lines log = TakeLog();
    EXPECT_EQ(Count(log, " replaces another" + handle + "libvisible.so, replaced: libhidden.so"),
              1u);
    EXPECT_EQ(Count(log, " over again" + handle + "libhidden.so, destroyed: libvisible.so"), 1u);
    BIND(first, Leave)();
    EXPECT_EQ(Count(TakeLog(), "W("), 0u);
  }
  EXPECT_TRUE(first.Unload());
  EXPECT_TRUE(second.Unload());
}

// 500 times, or what takes 15 seconds.
TEST_F(Modules, AreLoadedAndUnloadedWhileOthersPublishCallSetAndInspect) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  const Module bridge("com.quenmar.zorvix");
  const Module senders[] = {Module("hidden"), Module("visible")};
  std::atomic<bool> stop{false};
  std::vector<std::future<void>> threads;
  for (const auto& sender : senders) {
    threads.push_back(InBackground(BIND(sender, SendEachPayload), &stop));
  }
  threads.push_back(InBackground([&stop, inspect = BIND(senders[0], CountHandles)] {
    while (!stop) inspect();
  }));
  auto spin = InBackground(BIND(bridge, ZorvixSpin), 2);

  int rounds = 0;
  for (; rounds < 500 && std::chrono::steady_clock::now() < end && !HasFailure(); ++rounds) {
    EXPECT_TRUE(Module("statics").Unload());
    const Module module("soaked");
    std::atomic<int> invocations{0};
    BIND(module, UseEachPayload)(&invocations);
    EXPECT_TRUE(ComesTrue([&] { return invocations > 1000; }));
    BIND(module, Leave)();
    module.Unload();
    // The senders have its values until they have set later ones.
    EXPECT_TRUE(ComesTrue([&] { return !module.IsLoaded(); }));
    TakeLog();
  }

  std::cout << rounds << " rounds" << std::endl;
  stop = true;
  for (auto& thread : threads) thread.get();
  BIND(bridge, ZorvixStopSpin)();
  spin.get();
  for (const auto& sender : senders) EXPECT_TRUE(sender.Unload());
}

#ifndef __ANDROID__
TEST_F(Modules, AreNotLoadedIfTheirHeadersAreOfAnotherVersion) {
  const Module same("statics");

  EXPECT_EQ(dlopen(PathOf("older").c_str(), RTLD_LOCAL | RTLD_LAZY), nullptr);

  const std::string error = dlerror();
  EXPECT_NE(error.find("undefined symbol: zorvix_handles_2_9"), std::string::npos) << error;
}
#endif

}  // namespace
