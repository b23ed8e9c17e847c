// What Inspect, SlowLog, the log and traces tell of handles.
#include <pthread.h>
#include <zorvix/inspect.h>
#include <zorvix/presence.h>
#include <zorvix/state.h>

#include <future>
#include <map>
#include <sstream>
#include <thread>

#include "bridge_test.h"
#include "modules/payload.h"
#include "threads.h"

namespace {

// A trace of this thread. The sections form one line, such as "(Publish t(Subscriber t))"; an end
// without a beginning is '!'.
bool is_tracing = false;
std::string sections;
std::map<std::string, std::vector<std::int64_t>> counters;

}  // namespace

extern "C" {
ZORVIX_EXPORT bool ATrace_isEnabled() { return is_tracing; }
ZORVIX_EXPORT void ATrace_beginSection(const char* name) { sections += '(' + std::string(name); }
ZORVIX_EXPORT void ATrace_endSection() {
  const auto begun = std::count(sections.begin(), sections.end(), '(');
  const auto ended = std::count(sections.begin(), sections.end(), ')');
  sections += begun > ended ? ')' : '!';
}
ZORVIX_EXPORT void ATrace_setCounter(const char* name, std::int64_t value) {
  counters[name].push_back(value);
}
}

namespace {

using std::chrono::milliseconds;
using zorvix::Delivery;
using zorvix::Inbox;
using zorvix::KeepLast;
using zorvix::SlowLog;
using Ints = zorvix::Subscriber<int>;
using IntServer = zorvix::Server<int, int>;
using IntClient = zorvix::Client<int, int>;

const zorvix::Topic<int> kTopic{"t"};
const zorvix::Topic<int> kNeverDrained{"never drained"};
const zorvix::Service<int, int> kService{"s"};
const zorvix::State<int> kState{"state"};
const auto ignore = [](auto) {};
const auto answer = [](int number) { return number; };

// Returns the table's line of each handle, with single spaces: its name, kind, module, place,
// counterparts, messages sent, received and pending, depth, dropped messages, longest invocation in
// milliseconds, and what is wrong.
Lines InspectLines() {
  std::stringstream table;
  table << zorvix::Inspect();
  std::string heading;
  std::getline(table, heading);
  const std::size_t last_column = heading.find("  what is wrong");
  Lines lines;
  for (std::string line; std::getline(table, line);) {
    EXPECT_TRUE(line.size() == last_column || line.substr(last_column, 2) == "  ") << line;
    const auto are_spaces = [](char one, char other) { return one == ' ' && other == ' '; };
    line.erase(std::unique(line.begin(), line.end(), are_spaces), line.end());
    lines.push_back(line);
  }
  return lines;
}

// Returns such as "t Publisher: no subscriber" for each handle that has something wrong.
Lines Findings() {
  Lines lines;
  for (const auto& handle : zorvix::Inspect()) {
    std::string line = handle.name + ' ' + handle.kind + ':';
    for (const auto& finding : handle.findings) line += ' ' + finding.text + ';';
    line.pop_back();
    if (!handle.findings.empty()) lines.push_back(line);
  }
  return lines;
}

using Inspection = Bridge;

TEST_F(Inspection, InspectListsEachHandleOnceAsLongAsItLives) {
  {
    Inbox inbox;
    const zorvix::Publisher publisher(kTopic, zorvix::Audience::Optional);
    const Ints direct(kTopic, ignore);
    const zorvix::Holder holder(kState);
    const zorvix::Watcher watcher(kState);
    const zorvix::Watcher with_inbox(kState, ignore, inbox);
    const zorvix::Presence presence(kTopic, ignore, Delivery::Queued);
    IntServer server(kService, answer);
    IntClient client(kService);
    const IntServer moved_server(std::move(server));
    const IntClient moved_client(std::move(client));
    const zorvix::Workers workers(2);

    const Lines expected = {
        "inbox Inbox zorvix_test 1 0 0 0 all 0 0",
        "queued Queue 2 0 0 0 0 0 0",
        "s Client zorvix_test 1 0 0 0 0 0 0",
        "s Server zorvix_test direct 1 0 0 0 0 0 0",
        "state Holder zorvix_test 2 0 0 0 0 0 0",
        "state Watcher zorvix_test 1 0 0 0 0 0 0",
        "state Watcher zorvix_test inbox 1 0 0 0 1 0 0",
        "t Presence zorvix_test queued 1 0 1 0 1 0 0",
        "t Publisher zorvix_test 1 0 0 0 0 0 0",
        "t Subscriber zorvix_test direct 1 0 0 0 0 0 0",
    };
    // A worker takes the task of the queued presence.
    ComesTrue([&] { return InspectLines() == expected; });
    EXPECT_EQ(InspectLines(), expected);
  }
  EXPECT_EQ(InspectLines(), Lines());
}

TEST_F(Inspection, InspectCountsWhatIsSentReceivedPendingAndDropped) {
  std::optional<Inbox> inbox(std::in_place);
  const zorvix::Topic<int> a{"a"};
  const zorvix::Topic<int> b{"b"};
  const Ints with_inbox(a, ignore, *inbox, KeepLast{2});
  const Ints queued(b, ignore, Delivery::Queued, KeepLast{3});
  const Ints keeps_all(b, ignore, *inbox, zorvix::KeepAll());
  const IntServer server(kService, answer, *inbox, KeepLast{4});
  const zorvix::Watcher watcher(kState, ignore, *inbox);
  const zorvix::Watcher direct(kState, ignore);
  zorvix::Holder holder(kState);
  const IntClient client(kService, *inbox, KeepLast{5});
  const zorvix::Publisher publisher_a(a);
  const zorvix::Publisher publisher_b(b);
  publisher_b.Publish(0);
  ZorvixSpinOnce();

  for (int number = 0; number < 6; ++number) {
    publisher_a.Publish(number);
    std::thread([&] { publisher_b.Publish(number); }).join();
    client.Call(number, ignore);
    holder.Set(number);
  }
  EXPECT_EQ(InspectLines(), (Lines{
                                "a Publisher zorvix_test 1 6 0 0 0 0 0",
                                "a Subscriber zorvix_test inbox 1 0 6 2 2 4 0 never drained; drops",
                                "b Publisher zorvix_test 2 7 0 0 0 0 0",
                                "b Subscriber zorvix_test queued 1 0 7 3 3 3 0 drops",
                                "b Subscriber zorvix_test inbox 1 0 7 7 all 0 0 never drained",
                                "inbox Inbox zorvix_test 5 0 0 16 all 0 0 never drained",
                                "queued Queue 0 0 0 3 0 0 0",
                                "s Client zorvix_test inbox 1 6 0 2 5 1 0 never drained; drops",
                                "s Server zorvix_test inbox 1 0 5 4 4 1 0 never drained; drops",
                                "state Holder zorvix_test 2 6 0 0 0 0 0",
                                "state Watcher zorvix_test inbox 1 0 6 1 1 0 0 never drained",
                                "state Watcher zorvix_test direct 1 0 6 0 1 0 0",
                            }));

  inbox->Drain();
  ZorvixSpinOnce();
  EXPECT_EQ(InspectLines(), (Lines{
                                "a Publisher zorvix_test 1 6 0 0 0 0 0",
                                "a Subscriber zorvix_test inbox 1 0 6 0 2 4 0 drops",
                                "b Publisher zorvix_test 2 7 0 0 0 0 0",
                                "b Subscriber zorvix_test queued 1 0 7 0 3 3 0 drops",
                                "b Subscriber zorvix_test inbox 1 0 7 0 all 0 0",
                                "inbox Inbox zorvix_test 5 0 0 4 all 0 0",
                                "queued Queue 0 0 0 0 0 0 0",
                                "s Client zorvix_test inbox 1 6 4 4 5 1 0 drops",
                                "s Server zorvix_test inbox 1 0 5 0 4 1 0 drops",
                                "state Holder zorvix_test 2 6 0 0 0 0 0",
                                "state Watcher zorvix_test inbox 1 0 6 0 1 0 0",
                                "state Watcher zorvix_test direct 1 0 6 0 1 0 0",
                            }));

  holder.Set(6);
  inbox.reset();
  for (const auto& handle : zorvix::Inspect()) EXPECT_EQ(handle.pending, 0u) << handle.name;
  EXPECT_EQ(Count(Findings(), "its inbox is destroyed"), 5u);
}

TEST_F(Inspection, InspectCoversModulesThatAreLoadedApart) {
  const zorvix::Publisher publisher(kNeverDrained);
  const Module one("hidden");
  const Module two("visible");
  BIND(one, Subscribe)();
  BIND(two, Subscribe)();
  publisher.Publish(1);

  EXPECT_EQ(InspectLines(),
            (Lines{
                "inbox Inbox libhidden.so 1 0 0 1 all 0 0 never drained",
                "inbox Inbox libvisible.so 1 0 0 1 all 0 0 never drained",
                "never drained Publisher zorvix_test 2 1 0 0 0 0 0",
                "never drained Subscriber libhidden.so inbox 1 0 1 1 2 0 0 never drained",
                "never drained Subscriber libvisible.so inbox 1 0 1 1 2 0 0 never drained",
            }));
  EXPECT_EQ(BIND(two, CountHandles)(), 5u);

  BIND(one, Leave)();
  EXPECT_TRUE(one.Unload());
  EXPECT_EQ(InspectLines().size(), 3u);
  BIND(two, Leave)();
  EXPECT_TRUE(two.Unload());
  EXPECT_EQ(InspectLines().size(), 1u);
}

using Handles = std::vector<std::shared_ptr<void>>;
template <typename... Any>
Handles All(Any... handles) {
  return {std::make_shared<Any>(std::move(handles))...};
}

TEST_F(Inspection, InspectSaysWhatIsWrongAndClaimsNothingThatItCannotKnow) {
  constexpr auto kOptional = zorvix::Audience::Optional;
  struct Row {
    std::function<Handles()> construct;
    Lines findings;
  };
  const zorvix::Topic<int, BridgeType::Async> async{"t"};
  const zorvix::Topic<std::string> texts{"t"};
  const zorvix::Service<int, std::string> text_service{"s"};
  const zorvix::Service<int, int, BridgeType::SignleAsync> once{"s"};
  const zorvix::State<int> other_case{"STATE"};
  const auto similar = [](const char* name) { return zorvix::Topic<int>{name}; };
  const Row rows[] = {
      {[&] { return All(zorvix::Publisher(kTopic)); }, {"t Publisher: no subscriber"}},
      {[&] {
         zorvix::Publisher publisher(kTopic, kOptional);
         publisher.Publish(1);
         return All(std::move(publisher));
       },
       {}},
      {[&] { return All(zorvix::Publisher(kTopic, kOptional), Ints(similar("T"), ignore)); },
       {"T Subscriber: no publisher; similar name: t (zorvix_test)",
        "t Publisher: no subscriber; similar name: T (zorvix_test)"}},
      {[&] { return All(Ints(kTopic, ignore)); }, {"t Subscriber: no publisher"}},
      {[&] { return All(IntClient(kService)); }, {"s Client: no server"}},
      {[&] { return All(IntServer(kService, answer)); }, {}},
      {[&] { return All(zorvix::Watcher(kState)); }, {"state Watcher: no holder"}},
      {[&] { return All(zorvix::Holder(kState)); }, {}},
      // Names: of another case, two edits away, three edits away, short, and similar but right.
      {[&] {
         return All(zorvix::Holder(kState), zorvix::Watcher(other_case),
                    zorvix::Presence(other_case));
       },
       {"STATE Presence: no holder; similar name: state (zorvix_test)",
        "STATE Watcher: no holder; similar name: state (zorvix_test)",
        "state Holder: no watcher; similar name: STATE (zorvix_test)"}},
      {[&] {
         return All(zorvix::Publisher(similar("distance")), Ints(similar("distance_2"), ignore));
       },
       {"distance Publisher: no subscriber; similar name: distance_2 (zorvix_test)",
        "distance_2 Subscriber: no publisher; similar name: distance (zorvix_test)"}},
      {[&] {
         return All(zorvix::Publisher(similar("distance")), Ints(similar("instances"), ignore),
                    Ints(similar("ab"), ignore), zorvix::Publisher(similar("b")));
       },
       {"ab Subscriber: no publisher", "b Publisher: no subscriber",
        "distance Publisher: no subscriber", "instances Subscriber: no publisher"}},
      {[&] {
         return All(Ints(similar("lift"), ignore), zorvix::Publisher(similar("left")),
                    Ints(similar("left"), ignore), zorvix::Publisher(similar("leg"), kOptional),
                    zorvix::Presence(similar("leg")), zorvix::Presence(similar("let")),
                    zorvix::Publisher(similar("loft")));
       },
       {"let Presence: no subscriber; similar name: lift (zorvix_test)",
        "lift Subscriber: no publisher; similar name: loft (zorvix_test)",
        "loft Publisher: no subscriber; similar name: lift (zorvix_test)"}},
      {[&] { return All(zorvix::Publisher(kTopic), zorvix::Subscriber(async, ignore)); },
       {"t Publisher: other kind: zorvix_test is Async; no subscriber",
        "t Subscriber: other kind: zorvix_test is Sync; no publisher"}},
      {[&] {
         auto all =
             All(zorvix::Publisher(kTopic), Ints(kTopic, ignore), zorvix::Subscriber(texts, ignore),
                 zorvix::Subscriber(texts, ignore, Delivery::Queued));
         zorvix::Publisher(kTopic).Publish(1);
         return all;
       },
       {"t Publisher: other message type: zorvix_test takes std::string",
        "t Subscriber: other message type: zorvix_test publishes int; "
        "rejected because of their type: 1",
        "t Subscriber: other message type: zorvix_test publishes int; "
        "rejected because of their type: 1"}},
      {[&] {
         return All(IntClient(kService), zorvix::Server(text_service, [](int) { return ""; }));
       },
       {"s Client: other message type: zorvix_test serves int -> std::string",
        "s Server: other message type: zorvix_test calls with int -> int"}},
      {[&] {
         return All(IntServer(kService, answer), IntServer(kService, answer, Delivery::Queued));
       },
       {"s Server: replaced by zorvix_test"}},
      {[&] {
         auto all = All(zorvix::Holder(kState), zorvix::Holder(kState));
         all.pop_back();
         return all;
       },
       {}},
      {[&] {
         auto all = All(Ints(kTopic, ignore, Delivery::Queued, KeepLast{1}));
         for (int i = 0; i < 2; ++i) zorvix::Publisher(kTopic).Publish(i);
         ZorvixSpinOnce();
         return all;
       },
       {"t Subscriber: no publisher"}},
      // The queue has been drained before.
      {[&] {
         auto all = All(Ints(kTopic, ignore, Delivery::Queued));
         zorvix::Publisher(kTopic).Publish(1);
         return all;
       },
       {"t Subscriber: no publisher"}},
      {[&] {
         auto all = All(zorvix::Server(once, answer));
         zorvix::Client(once).Call(1);
         ZorvixSpinOnce();
         return all;
       },
       {}},
      // Endpoints without a handle may be what is missing.
      {[&] {
         Subscribed("t", BridgeType::Sync, {Subscriber([](auto&) {})});
         Service("s", BridgeType::Sync, Server([](auto&, auto&) {}));
         return All(zorvix::Publisher(kTopic), IntClient(kService));
       },
       {}},
      {[&] {
         auto all = All(IntServer(kService, answer));
         Service("s", BridgeType::Sync, Server([](auto&, auto&) {}));
         return all;
       },
       {"s Server: replaced by a server without a handle"}},
  };
  for (const auto& row : rows) {
    const Handles handles = row.construct();
    EXPECT_EQ(Findings(), row.findings);
  }
}

TEST_F(Inspection, InspectShowsWhichThreadIsInsideACallableAndForHowLong) {
  const zorvix::Service<int, int> queued_service{"queued service"};
  const zorvix::Topic<int> other_topic{"u"};
  const zorvix::Topic<int> idle_topic{"idle"};
  std::atomic<int> caller{0};
  std::atomic<int> asker{0};
  std::atomic<bool> is_over{false};
  std::atomic<bool> has_second{false};
  std::atomic<bool> may_leave{false};
  const auto wait = [&](int number) {
    if (number == 0) return 0;
    if (number == 2) has_second = true;
    EXPECT_TRUE(ComesTrue([&] { return number == 1 ? may_leave.load() : is_over.load(); }));
    return 0;
  };
  const IntServer server(queued_service, wait, Delivery::Queued);
  std::optional<zorvix::Reply<int>> kept;
  const IntServer keeps(kService, [&](int, zorvix::Reply<int> reply) { kept = std::move(reply); });
  const Ints direct(kTopic, wait);
  const zorvix::Publisher publisher(other_topic);
  const zorvix::Publisher idle_publisher(idle_topic);
  const Ints idle(idle_topic, ignore, Delivery::Queued);
  const Ints pending(other_topic, ignore, Delivery::Queued);
  const Ints repeated(other_topic,
                      [](int) { EXPECT_EQ(Count(Findings(), "u Subscriber: running"), 0u); });
  const auto on_thread = [](const char* name, auto function) {
    return std::thread([=] {
      pthread_setname_np(pthread_self(), name);
      function();
    });
  };
  const auto find = [](const std::string& which) {
    for (const auto& handle : zorvix::Inspect()) {
      if (handle.name + ' ' + handle.kind == which) return handle;
    }
    return zorvix::HandleInfo();
  };
  const std::string both[] = {"queued service Server", "t Subscriber"};
  const auto wait_until_inside = [&](const std::string& which) {
    EXPECT_TRUE(ComesTrue([&] { return find(which).thread != 0; })) << which;
  };
  const auto call = [&](auto& thread, const char* name, const auto& service) {
    return on_thread(name, [&] {
      thread = gettid();
      IntClient(service).Call(3);
    });
  };
  std::thread first = on_thread("first", [] { zorvix::Publisher(kTopic).Publish(1); });
  wait_until_inside(both[1]);
  std::thread second = on_thread("publisher", [] {
    {
      const SlowLog slow(std::chrono::hours(1));
      zorvix::Publisher(kTopic).Publish(0);
    }
    zorvix::Publisher(kTopic).Publish(2);
  });
  EXPECT_TRUE(ComesTrue([&] { return has_second.load(); }));
  EXPECT_EQ(find(both[1]).thread_name, "first") << "it has been inside for longer";
  may_leave = true;
  first.join();
  std::thread threads[] = {
      std::move(second),
      call(asker, "asker", kService),
      call(caller, "caller", queued_service),
      on_thread("drainer",
                [&] {
                  while (!is_over) ZorvixSpinOnce();
                }),
  };
  wait_until_inside(both[0]);
  Inbox inbox;
  const IntClient continues(queued_service, inbox);
  continues.Call(3, ignore);  // pending while the server's drain is in progress
  const IntServer later(queued_service, answer);
  publisher.Publish(1);
  EXPECT_EQ(Findings(), Lines{"queued service Server: replaced by zorvix_test"});
  EXPECT_EQ(find(both[0]).thread_name, "drainer");
  EXPECT_EQ(find("queued Queue").thread, find(both[0]).thread);

  std::this_thread::sleep_for(milliseconds(1000));
  publisher.Publish(1);
  idle_publisher.Publish(1);
  const auto running = [&](const std::string& which) {
    return "running for at least 1 s on thread " + std::to_string(find(which).thread);
  };
  const auto waiting = [](int thread, const std::string& name) {
    return "calls that wait: 1, for 1 s on thread " + std::to_string(thread) + " (" + name + ")";
  };
  EXPECT_EQ(Findings(),
            (Lines{"queued Queue: not drained for 1 s",
                   "queued service Client: " + waiting(caller, "caller"),
                   "queued service Server: replaced by zorvix_test; " + running(both[0]) +
                       " (drainer); " + waiting(caller, "caller"),
                   "s Client: " + waiting(asker, "asker"), "s Server: " + waiting(asker, "asker"),
                   "t Subscriber: " + running(both[1]) + " (publisher)",
                   "u Subscriber: not drained for 1 s"}));
  is_over = true;
  (*kept)(1);
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(find(both[1]).thread, 0);
}

TEST_F(Inspection, DropsAreLoggedAtMostOnceASecondForEachHandleAndInAll) {
  Inbox inbox;
  std::optional subscriber(Ints(kTopic, ignore, inbox, KeepLast{2}));
  std::optional client(IntClient(kService, inbox, KeepLast{2}));
  const auto drop_and_catch_up = [&](int times) {
    for (int number = 0; number < 3 * times; ++number) {
      zorvix::Publisher(kTopic).Publish(number);
      client->Call(number, ignore);
      if (number % 3 == 2) inbox.Drain();
    }
  };
  const auto expect_one_each = [&](const std::string& dropped) {
    const Lines log = TakeLog();
    const std::string end = ", module: zorvix_test, dropped: " + dropped;
    EXPECT_EQ(Count(log, "a queue has dropped messages, "), 2u);
    EXPECT_EQ(Count(log, "kind: Subscriber, name: t" + end), 1u);
    EXPECT_EQ(Count(log, "kind: Client, name: s" + end), 1u);
    return Count(log, "a full queue drops its oldest") + Count(log, "has too many calls");
  };

  zorvix::Publisher(kTopic).Publish(0);
  client->Call(0, ignore);
  inbox.Drain();  // catches up without drops
  drop_and_catch_up(100);
  EXPECT_EQ(expect_one_each("1"), 2u);
  std::this_thread::sleep_for(milliseconds(510));
  drop_and_catch_up(1);
  std::this_thread::sleep_for(milliseconds(510));
  drop_and_catch_up(100);
  EXPECT_EQ(expect_one_each("101"), 2u);
  subscriber.reset();
  client.reset();
  EXPECT_EQ(expect_one_each("99"), 0u);
}

// Publishes as often as a sensor, also calls `step`, and returns the log of that time.
Lines PublishFor(milliseconds time, const std::function<void()>& step) {
  const auto end = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < end) {
    zorvix::Publisher(kTopic).Publish(1);
    step();
    std::this_thread::sleep_for(milliseconds(10));
  }
  return TakeLog();
}

TEST_F(Inspection, QueueThatNoThreadDrainsIsLoggedOnceUntilItIsDrained) {
  const std::string line = "no thread drains the queue, kind: ";
  const Ints queued(kTopic, ignore, Delivery::Queued, KeepLast{1});
  const Ints other(kTopic, ignore, Delivery::Queued, KeepLast{1});
  const auto publish_until_logged = [&] {
    const auto begin = std::chrono::steady_clock::now();
    Lines log;
    EXPECT_TRUE(ComesTrue([&] {
      zorvix::Publisher(kTopic).Publish(1);
      log = TakeLog();
      return Count(log, line) != 0;
    }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(980));
    return log;
  };

  const std::string handle = "Subscriber, name: t, module: zorvix_test, pending: 1, for ";
  EXPECT_EQ(Count(publish_until_logged(), line + handle), 1u);
  for (int number = 0; number < 100; ++number) zorvix::Publisher(kTopic).Publish(number);
  EXPECT_EQ(Count(TakeLog(), line), 0u) << "once";
  ZorvixSpinOnce();
  zorvix::Publisher(kTopic).Publish(1);
  std::this_thread::sleep_for(milliseconds(1020));
  zorvix::Publisher(kTopic).Publish(1);
  EXPECT_EQ(Count(TakeLog(), line), 1u);
}

// Takes 11 seconds, in which a line of the log holds three callables.
TEST_F(Inspection, WhatDoesNotGoOnIsLoggedAfterOneAndTenSecondsWithItsReason) {
  const zorvix::Topic<int> blocking{"blocking"};
  const zorvix::Topic<int> in_task{"in task"};
  const zorvix::Service<int, int> in_own{"in own"};
  const auto block = [](int number) {
    pthread_setname_np(pthread_self(), "blocked");
    Log("held");
    return number;
  };
  Inbox own("own");
  Inbox busy("busy");
  Inbox slow("slow");
  Inbox discards("discards");
  const IntClient lonely(zorvix::Service<int, int>{"nobody"});
  zorvix::Holder holder(kState);
  const zorvix::Watcher with_own(kState, ignore, own);
  const Ints with_busy(kTopic, ignore, busy, zorvix::KeepAll());
  const Ints always_behind(kTopic, ignore, slow, zorvix::KeepAll());
  const IntServer servers[] = {{in_own, answer, own}, {kService, block, busy}};
  const Ints blocks_task(in_task, block, Delivery::Queued, KeepLast{1});
  const Ints queued(kTopic, ignore, Delivery::Queued, KeepLast{1});
  const zorvix::Workers worker(1);
  const zorvix::InboxThread thread(busy);
  std::optional<Ints> direct;
  direct.emplace(blocking, [&](int number) {
    if (number == 1) block(number);
    if (number == 2) direct.reset();  // inside its own callable
  });
  const auto call = [](auto& service) { IntClient(service).Call(1, milliseconds(10500)); };
  HoldLog("held");
  zorvix::Publisher(in_task).Publish(1);
  std::atomic<bool> has_published{false};
  auto destroy = InBackground([&] {
    zorvix::Publisher(blocking).Publish(0);
    has_published = true;
    WaitForLog("held", 3);
    zorvix::Publisher(blocking).Publish(2);
  });
  EXPECT_TRUE(ComesTrue([&] { return has_published.load(); }));
  auto publish = InBackground([&] { zorvix::Publisher(blocking).Publish(1); });
  auto call_busy = InBackground([&] { call(kService); });
  WaitForLog("held", 3);
  auto call_own = InBackground([&] {
    own.Drain();
    call(in_own);
  });
  auto wait = InBackground([&] { lonely.WaitForServer(milliseconds(10500)); });
  auto wait_for_value = InBackground(
      [] { zorvix::Watcher(zorvix::State<int>{"unset"}).WaitForValue(milliseconds(10500)); });
  const IntServer later(kService, answer);
  zorvix::Publisher(kTopic).Publish(1);

  const Lines log = PublishFor(milliseconds(10900), [&] {
    zorvix::Publisher(in_task).Publish(1);
    const Ints discarded(kTopic, ignore, discards);
    zorvix::Publisher(kTopic).Publish(1);
    slow.Drain(milliseconds(0));
    holder.Set(1);
  });
  HoldLog("");

  for (const std::string line : {"a destructor waits for its callable to return, name: blocking, "
                                 "kind: Subscriber, module: zorvix_test, thread: ",
                                 "a call waits for its answer, name: s, kind: Server, "
                                 "module: zorvix_test, thread: ",
                                 "a call waits for its answer, name: in own, kind: Server, module: "
                                 "zorvix_test, pending in an inbox that no thread drains, inbox: "
                                 "own, last drained by this thread",
                                 "a client waits for a server, name: nobody, module: zorvix_test, "
                                 "for ",
                                 "a watcher waits for a value, name: unset, module: zorvix_test, "
                                 "for "}) {
    EXPECT_EQ(Count(log, line), 2u) << line;
  }
  EXPECT_EQ(Count(log, " (blocked), for 1 s"), 2u);
  EXPECT_EQ(Count(log, " (blocked), for 10 s"), 2u);
  EXPECT_EQ(Count(log, "while a task is inside a callable, kind: Subscriber, name: in task, "), 1u);
  EXPECT_EQ(Count(log, ", for 10 s"), 9u);
  EXPECT_EQ(Count(log, "no thread drains an inbox, inbox: own, kind: Watcher, name: state, "), 1u);
  EXPECT_EQ(Count(log, "messages are pending while a callable runs, kind: Server, name: s, "), 1u);
  EXPECT_EQ(Count(log, "while a callable runs, kind: Subscriber, name: in task, "), 1u);
  EXPECT_EQ(Count(log, "replaces another"), 1u);
  EXPECT_EQ(Count(log, "W("), 15u) << "nothing about the inboxes that are always behind or empty";
}

// Has each kind of callable invoked once: directly, from an inbox and from the bridge's queue.
void InvokeEachKind(const std::function<void()>& callable) {
  const auto call = [=](auto&&...) {
    callable();
    return 0;
  };
  Inbox inbox("frames");
  const zorvix::Service<int, int> other{"other"};
  const Ints direct(kTopic, call);
  const Ints with_inbox(kTopic, call, inbox);
  const Ints queued(kTopic, call, Delivery::Queued);
  const IntServer direct_server(kService, call);
  const IntServer server(other, call, inbox);
  const IntClient client(other, inbox);
  zorvix::Holder holder(kState);
  const zorvix::Watcher watcher(kState, call);
  const zorvix::Watcher watcher_with_inbox(kState, call, inbox);
  zorvix::Publisher(kTopic).Publish(1);
  IntClient(kService).Call(1);
  client.Call(1, call);
  holder.Set(1);
  inbox.Post(callable);
  inbox.Drain();
  inbox.Drain();
  ZorvixSpinOnce();
}

TEST_F(Inspection, SlowLogNamesEachCallableThatTakesLonger) {
  const SlowLog slow(milliseconds(1));
  InvokeEachKind([] {});
  TakeLog();

  InvokeEachKind([] { std::this_thread::sleep_for(milliseconds(3)); });

  const Lines log = TakeLog();
  const std::map<std::string, std::size_t> expected{
      {"Subscriber, name: t", 3}, {"Server, name: s", 1},      {"Server, name: other", 1},
      {"Client, name: other", 1}, {"Watcher, name: state", 2}, {"Inbox, name: frames", 1}};
  for (const auto& [endpoint, count] : expected) {
    EXPECT_EQ(Count(log, " ms, kind: " + endpoint + ", module: zorvix_test"), count) << endpoint;
  }
  EXPECT_EQ(Count(log, "a callable took "), 9u);
  EXPECT_EQ(Count(log, "a callable took 0 ms") + Count(log, "a callable took 2 ms"), 0u);
}

TEST_F(Inspection, SmallestLimitCountsAndMeasuringStopsWithTheLastSlowLog) {
  std::optional<SlowLog> high;
  std::optional<SlowLog> low;
  bool has_built = false;
  const Ints subscriber(kTopic, [&](int) {
    std::this_thread::sleep_for(milliseconds(2));
    if (!std::exchange(has_built, true)) high.emplace(std::chrono::hours(1));
  });
  const auto publish = [] {
    zorvix::Publisher(kTopic).Publish(1);
    return Count(TakeLog(), "a callable took");
  };

  EXPECT_EQ(publish(), 0u);
  EXPECT_EQ(zorvix::Inspect().at(0).longest.count(), 0) << "not measured from its beginning on";
  EXPECT_EQ(publish(), 0u);
  EXPECT_GE(zorvix::Inspect().at(0).longest, milliseconds(2));
  low.emplace(milliseconds(0));
  EXPECT_EQ(publish(), 1u);
  EXPECT_EQ(Count(Findings(), " ms on the publisher's thread"), 1u);
  std::optional<SlowLog> same(milliseconds(0));
  same.reset();
  EXPECT_EQ(publish(), 1u);
  low.reset();
  EXPECT_EQ(publish(), 0u);
  low.emplace(milliseconds(0));
  high.reset();
  EXPECT_EQ(publish(), 1u);
  low.reset();
  EXPECT_EQ(publish(), 0u) << "not measured any more";
  EXPECT_EQ(Count(Findings(), "slow"), 0u);
  EXPECT_EQ(zorvix::Inspect().at(0).invocations, 7u);
}

TEST_F(Inspection, MeasuredTaskMayDestroyItsInboxAndThrow) {
  const SlowLog slow(milliseconds(0));
  std::optional<Inbox> inbox("frames");
  inbox->Post([&] {
    inbox.reset();
    throw std::runtime_error("bad luck");
  });

  EXPECT_EQ(inbox->Drain(std::chrono::hours(1)), 1u);

  EXPECT_EQ(Count(TakeLog(), ", name: frames"), 2u) << "what it throws, and that it is slow";
}

// Android's trace cannot be read.
class Traces : public Bridge {
 protected:
  void SetUp() override {
#ifdef __ANDROID__
    GTEST_SKIP();
#endif
    Bridge::SetUp();
    sections.clear();
    counters.clear();
    is_tracing = true;
  }
  void TearDown() override {
    is_tracing = false;
    Bridge::TearDown();
  }
};

TEST_F(Traces, InvocationsPublicationsCallsAndSetsAreSections) {
  InvokeEachKind([] {});

  EXPECT_EQ(sections,
            "(Publish t(Subscriber t))(Call s(Server s))(Call other)(Set state(Watcher state))"
            "(Subscriber t)(Server other)(Watcher state)(Inbox frames)(Client other)"
            "(Subscriber t)");
}

TEST_F(Traces, SectionsStayBalancedWhateverACallableDoes) {
  struct Row {
    bool traced_before;
    void (*callable)();
    const char* sections;
  };
  const Row rows[] = {
      {true, [] { throw std::runtime_error("bad luck"); }, "(Publish t(Subscriber t))"},
      {true, [] { throw 1; }, "(Publish t(Subscriber t))"},
      {true, [] { is_tracing = false; }, "(Publish t(Subscriber t))"},
      {false, [] { is_tracing = true; }, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Inbox inbox;
    const auto call = [&](int) { row.callable(); };
    const Ints with_inbox(kTopic, call, inbox);
    const Ints direct(kTopic, call);
    is_tracing = row.traced_before;
    try {
      zorvix::Publisher(kTopic).Publish(1);
    } catch (int) {
    }
    EXPECT_EQ(std::exchange(sections, ""), row.sections);

    is_tracing = row.traced_before;
    try {
      inbox.Drain();
    } catch (int) {
    }
    EXPECT_EQ(std::exchange(sections, ""), row.traced_before ? "(Subscriber t)" : "");
  }
}

TEST_F(Traces, PendingMessagesOfInboxesAndQueuedSubscribersAreCounters) {
  Inbox inbox("frames");
  const Ints with_inbox(kTopic, ignore, inbox);
  std::optional queued(Ints(kTopic, ignore, Delivery::Queued));
  for (const int number : {1, 2}) zorvix::Publisher(kTopic).Publish(number);
  inbox.Drain();
  queued.reset();

  EXPECT_EQ(counters["pending frames, zorvix_test"], (std::vector<std::int64_t>{1, 2, 1, 0}));
  EXPECT_EQ(counters["pending t, queued, zorvix_test"], (std::vector<std::int64_t>{1, 2, 0}));
  EXPECT_EQ(counters.size(), 2u);
}

}  // namespace
