// What Inspect, SlowLog, the log and traces tell of handles.
#include <dlfcn.h>
#include <zorvix/inspect.h>
#include <zorvix/state.h>

#include <filesystem>
#include <future>
#include <map>
#include <sstream>

#include "bridge_test.h"
#include "modules/inspected.h"

namespace {

// A trace that records the sections of each thread as one line, such as "(Publish t(Subscriber
// t))". An end without a beginning is '!'.
struct Trace {
  std::mutex mutex;
  std::map<std::thread::id, std::string> sections;
  std::vector<std::pair<std::string, std::int64_t>> counters;
};
Trace& TheTrace() {
  static auto* const trace = new Trace;  // outlives the bridge
  return *trace;
}
std::atomic<bool> is_tracing{false};

}  // namespace

extern "C" {
ZORVIX_EXPORT bool ATrace_isEnabled() { return is_tracing; }
ZORVIX_EXPORT void ATrace_beginSection(const char* name) {
  const std::lock_guard lock(TheTrace().mutex);
  TheTrace().sections[std::this_thread::get_id()] += '(' + std::string(name);
}
ZORVIX_EXPORT void ATrace_endSection() {
  const std::lock_guard lock(TheTrace().mutex);
  auto& sections = TheTrace().sections[std::this_thread::get_id()];
  const auto begun = std::count(sections.begin(), sections.end(), '(');
  const auto ended = std::count(sections.begin(), sections.end(), ')');
  sections += begun > ended ? ')' : '!';
}
ZORVIX_EXPORT void ATrace_setCounter(const char* name, std::int64_t value) {
  const std::lock_guard lock(TheTrace().mutex);
  TheTrace().counters.emplace_back(name, value);
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
const zorvix::Topic<int> kOthers{"inspected"};
const zorvix::Service<int, int> kService{"s"};
const zorvix::State<int> kState{"state"};
const auto ignore = [](auto) {};
const auto answer = [](int number) { return number; };

// Returns a line for each handle, such as "Subscriber t of zorvix_test: 2 of 3, 1 dropped".
Lines InspectLines() {
  Lines lines;
  for (const auto& handle : zorvix::Inspect()) {
    std::ostringstream line;
    line << handle.kind << ' ' << handle.name << " of " << handle.module;
    if (handle.depth != 0 || handle.pending != 0) {
      line << ": " << handle.pending << " of " << handle.depth << ", " << handle.dropped
           << " dropped";
    }
    lines.push_back(line.str());
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

void ExpectNothingAboveInfo() {
  for (const auto& line : TakeLog()) EXPECT_EQ(line[0], 'I') << line;
}

TEST_F(Bridge, InspectListsEachHandleOnceAsLongAsItLives) {
  {
    Inbox inbox;
    const zorvix::Publisher publisher(kTopic, zorvix::Audience::Optional);
    const Ints direct(kTopic, ignore);
    const zorvix::Holder holder(kState);
    const zorvix::Watcher watcher(kState);
    const zorvix::Watcher with_inbox(kState, ignore, inbox);
    IntServer server(kService, answer);
    IntClient client(kService);
    const IntServer moved_server(std::move(server));
    const IntClient moved_client(std::move(client));
    TakeLog();

    EXPECT_EQ(InspectLines(), (Lines{
                                  "Client s of zorvix_test",
                                  "Holder state of zorvix_test",
                                  "Publisher t of zorvix_test",
                                  "Server s of zorvix_test",
                                  "Subscriber t of zorvix_test",
                                  "Watcher state of zorvix_test",
                                  "Watcher state of zorvix_test: 0 of 1, 0 dropped",
                              }));
    ExpectNothingAboveInfo();
  }
  EXPECT_EQ(InspectLines(), Lines());
}

TEST_F(Bridge, InspectCountsWhatIsPendingAndDropped) {
  Inbox inbox;
  const Ints with_inbox(zorvix::Topic<int>{"a"}, ignore, inbox, KeepLast{2});
  const Ints queued(zorvix::Topic<int>{"b"}, ignore, Delivery::Queued, KeepLast{3});
  const IntServer server(kService, answer, inbox, KeepLast{4});
  const IntClient client(kService, inbox);

  for (int number = 0; number < 6; ++number) {
    zorvix::Publisher(zorvix::Topic<int>{"a"}).Publish(number);
    zorvix::Publisher(zorvix::Topic<int>{"b"}).Publish(number);
    client.Call(number, ignore);
  }
  EXPECT_EQ(InspectLines(), (Lines{
                                "Client s of zorvix_test: 2 of 0, 0 dropped",
                                "Server s of zorvix_test: 4 of 4, 2 dropped",
                                "Subscriber a of zorvix_test: 2 of 2, 4 dropped",
                                "Subscriber b of zorvix_test: 3 of 3, 3 dropped",
                            }));

  inbox.Drain();
  ZorvixSpinOnce();
  EXPECT_EQ(InspectLines(), (Lines{
                                "Client s of zorvix_test: 4 of 0, 0 dropped",
                                "Server s of zorvix_test: 0 of 4, 2 dropped",
                                "Subscriber a of zorvix_test: 0 of 2, 4 dropped",
                                "Subscriber b of zorvix_test: 0 of 3, 3 dropped",
                            }));
}

TEST_F(Bridge, InspectMayBeCalledInsideCallables) {
  Inbox inbox;
  Lines seen;
  const auto inspect = [&](int) { seen = InspectLines(); };
  const auto expect_own = [&](const char* line) {
    EXPECT_EQ(std::exchange(seen, {}), Lines{line});
  };
  {
    const Ints direct(kTopic, inspect);
    zorvix::Publisher(kTopic).Publish(1);
    EXPECT_EQ(std::exchange(seen, {}).size(), 2u) << "the publisher, too";
  }
  const Ints with_inbox(kTopic, inspect, inbox, KeepLast{2});
  for (const int number : {1, 2}) zorvix::Publisher(kTopic).Publish(number);
  inbox.Drain(milliseconds(0));
  expect_own("Subscriber t of zorvix_test: 1 of 2, 0 dropped");
}

TEST_F(Bridge, InspectSeesCompleteHandlesWhileOthersComeAndGo) {
  std::atomic<bool> is_done{false};
  const auto come_and_go = [&] {
    Inbox inbox;
    while (!is_done) {
      const Ints direct(kTopic, ignore);
      const Ints with_inbox(kTopic, ignore, inbox, KeepLast{2});
      const IntServer server(kService, answer, inbox);
      const IntClient client(kService, inbox);
      for (int number = 0; number < 3; ++number) zorvix::Publisher(kTopic).Publish(number);
      inbox.Drain();
    }
  };
  const zorvix::Holder holder(kState);
  std::future<void> threads[] = {std::async(std::launch::async, come_and_go),
                                 std::async(std::launch::async, come_and_go)};

  std::size_t most = 0;
  for (int round = 0; round < 300 || most < 5; ++round) {
    const Lines lines = InspectLines();
    most = std::max(most, lines.size());
    EXPECT_EQ(Count(lines, "Holder state of zorvix_test"), 1u);
    EXPECT_EQ(Count(lines, " of zorvix_test"), lines.size());
  }
  is_done = true;
  for (auto& thread : threads) thread.get();
  EXPECT_EQ(InspectLines(), Lines{"Holder state of zorvix_test"});
}

// A module that is loaded apart from others, as an app loads its modules. It is in the program's
// folder.
struct Module {
  explicit Module(const std::string& name)
      : path(std::filesystem::read_symlink("/proc/self/exe").replace_filename(name)),
        library(dlopen(path.c_str(), RTLD_LOCAL | RTLD_NOW)) {
    if (library == nullptr) throw std::runtime_error(dlerror());
  }
  template <typename Function>
  Function* Find(const char* function) const {
    return reinterpret_cast<Function*>(dlsym(library, function));
  }
  void Subscribe(int duration) const { Find<decltype(::Subscribe)>("Subscribe")(duration); }
  void Unsubscribe() const { Find<decltype(::Unsubscribe)>("Unsubscribe")(); }
  std::size_t CountHandles() const { return Find<decltype(::CountHandles)>("CountHandles")(); }
  bool Unload() const {  // and return whether the code is gone
    return dlclose(library) == 0 && dlopen(path.c_str(), RTLD_NOLOAD | RTLD_NOW) == nullptr;
  }
  const std::string path;
  void* const library;
};

TEST_F(Bridge, InspectCoversModulesThatAreLoadedApart) {
  const zorvix::Publisher publisher(kOthers);
  const Module one("libinspected_one.so");
  const Module two("libinspected_two.so");
  one.Subscribe(0);
  two.Subscribe(0);
  publisher.Publish(1);
  TakeLog();

  EXPECT_EQ(InspectLines(), (Lines{
                                "Publisher inspected of zorvix_test",
                                "Subscriber inspected of libinspected_one.so",
                                "Subscriber inspected of libinspected_one.so: 1 of 2, 0 dropped",
                                "Subscriber inspected of libinspected_two.so",
                                "Subscriber inspected of libinspected_two.so: 1 of 2, 0 dropped",
                            }));
  EXPECT_EQ(two.CountHandles(), 5u);
  ExpectNothingAboveInfo();

  one.Unsubscribe();
  EXPECT_TRUE(one.Unload());
  EXPECT_EQ(InspectLines().size(), 3u);
  two.Unsubscribe();
  EXPECT_TRUE(two.Unload());
  EXPECT_EQ(InspectLines().size(), 1u);
}

TEST_F(Bridge, DroppedMessagesAreLoggedWithTheModuleWhoseHandleDropsThem) {
  const zorvix::Publisher publisher(kOthers);
  const Module one("libinspected_one.so");
  const Module two("libinspected_two.so");
  one.Subscribe(0);
  publisher.Publish(1);
  two.Subscribe(0);
  TakeLog();

  for (int number = 0; number < 3; ++number) publisher.Publish(number);
  Lines log = TakeLog();
  for (const char* const module : {"one", "two"}) {
    EXPECT_EQ(Count(log, std::string(": a full queue drops its oldest messages, kind: Subscriber, "
                                     "name: inspected, module: libinspected_") +
                             module + ".so, depth: 2"),
              1u);
  }
  one.Unsubscribe();
  two.Unsubscribe();

  log = TakeLog();
  const std::string dropped =
      ": a queue has dropped messages, kind: Subscriber, name: inspected, module: libinspected_";
  EXPECT_EQ(Count(log, dropped + "one.so, dropped: 2"), 1u) << "though it never caught up";
  EXPECT_EQ(Count(log, dropped + "two.so, dropped: 1"), 1u);
  EXPECT_EQ(Count(log, "W(message_queue.h"), 2u);
  EXPECT_EQ(Count(log,
                  ": pending messages are discarded, kind: Subscriber, name: inspected, "
                  "module: libinspected_one.so, discarded: 2"),
            1u);
  EXPECT_EQ(Count(log, "I(message_queue.h"), 2u);
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

TEST_F(Bridge, SlowLogNamesEachCallableThatTakesLonger) {
  const SlowLog slow(milliseconds(1));
  InvokeEachKind([] {});
  TakeLog();

  InvokeEachKind([] { std::this_thread::sleep_for(milliseconds(3)); });

  const Lines log = TakeLog();
  struct Row {
    const char* endpoint;
    std::size_t count;
  };
  for (const auto& row : {Row{"Subscriber, name: t", 3}, Row{"Server, name: s", 1},
                          Row{"Server, name: other", 1}, Row{"Client, name: other", 1},
                          Row{"Watcher, name: state", 2}, Row{"Inbox, name: frames", 1}}) {
    const auto line = std::string(" ms, kind: ") + row.endpoint + ", module: zorvix_test";
    EXPECT_EQ(Count(log, line), row.count) << row.endpoint;
  }
  EXPECT_EQ(Count(log, "W(measured.h"), 9u);
  EXPECT_EQ(Count(log, "a callable took 0 ms") + Count(log, "a callable took 2 ms"), 0u);
}

TEST_F(Bridge, SmallestLimitCountsAndMeasuringStopsWithTheLastSlowLog) {
  const Ints subscriber(kTopic, [](int) { std::this_thread::sleep_for(milliseconds(2)); });
  const auto publish = [] {
    zorvix::Publisher(kTopic).Publish(1);
    return Count(TakeLog(), "a callable took");
  };
  const auto invocations = [] { return zorvix::Inspect().at(0).invocations; };
  std::optional<SlowLog> high;
  std::optional<SlowLog> low;

  EXPECT_EQ(publish(), 0u);
  high.emplace(std::chrono::hours(1));
  EXPECT_EQ(publish(), 0u);
  low.emplace(milliseconds(1));
  EXPECT_EQ(publish(), 1u);
  low.reset();
  EXPECT_EQ(publish(), 0u);
  EXPECT_EQ(invocations(), 3u);
  EXPECT_GE(zorvix::Inspect().at(0).longest, milliseconds(2));
  high.reset();
  EXPECT_EQ(publish(), 0u);
  EXPECT_EQ(invocations(), 3u) << "not measured any more";
}

TEST_F(Bridge, SlowLogCoversModulesThatAreLoadedLater) {
  const SlowLog slow(milliseconds(1));
  const Module module("libinspected_one.so");
  module.Subscribe(2);

  zorvix::Publisher(kOthers).Publish(1);

  EXPECT_EQ(Count(TakeLog(), "kind: Subscriber, name: inspected, module: libinspected_one.so"), 1u);
  module.Unsubscribe();
}

TEST_F(Bridge, MeasuredCallablesMayDestroyWhatInvokesThem) {
  const SlowLog slow(milliseconds(1));
  std::optional<Inbox> inbox(std::in_place);
  std::optional<Ints> subscriber;
  const auto destroy = [&](auto&&...) {
    std::this_thread::sleep_for(milliseconds(2));
    subscriber.reset();
    inbox.reset();
    throw std::runtime_error("bad luck");
  };

  subscriber.emplace(kTopic, destroy);
  zorvix::Publisher(kTopic).Publish(1);
  EXPECT_EQ(Count(TakeLog(), "kind: Subscriber, name: t, module: "), 1u);

  inbox.emplace();
  subscriber.emplace(kTopic, destroy, *inbox);
  zorvix::Publisher(kTopic).Publish(1);
  inbox->Drain();
  EXPECT_EQ(Count(TakeLog(), "a callable took"), 1u);

  inbox.emplace("frames");
  inbox->Post(destroy);
  inbox->Drain();
  EXPECT_EQ(Count(TakeLog(), ", name: frames"), 2u) << "what it throws is logged, too";
}

// Android's trace cannot be read.
class Traces : public Bridge {
 protected:
  void SetUp() override {
#ifdef __ANDROID__
    GTEST_SKIP();
#endif
    Bridge::SetUp();
    TakeSections();
    TheTrace().counters.clear();
    is_tracing = true;
  }
  void TearDown() override {
    is_tracing = false;
    Bridge::TearDown();
  }
  static std::string TakeSections() {
    return std::exchange(TheTrace().sections[std::this_thread::get_id()], "");
  }
};

TEST_F(Traces, InvocationsPublicationsCallsAndSetsAreSections) {
  InvokeEachKind([] {});

  EXPECT_EQ(TakeSections(),
            "(Publish t(Subscriber t))(Call s(Server s))(Call other)(Set state(Watcher state))"
            "(Subscriber t)(Server other)(Watcher state)(Inbox frames)(Client other)"
            "(Subscriber t)");
}

TEST_F(Traces, SectionsStayBalancedWhateverACallableDoes) {
  const std::function<void()> fail = [] { throw std::runtime_error("bad luck"); };
  const std::function<void()> throw_int = [] { throw 1; };
  const std::function<void()> toggle = [] { is_tracing = !is_tracing; };
  struct Row {
    const char* name;
    bool traced_before;
    std::function<void()> callable;
    const char* sections;
  };
  const Row rows[] = {
      {"throws", true, fail, "(Publish t(Subscriber t))(Subscriber t)"},
      {"throws an int", true, throw_int, "(Publish t(Subscriber t))(Subscriber t)"},
      {"switches off", true, toggle, "(Publish t(Subscriber t))"},
      {"switches on", false, toggle, "(Subscriber t)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Inbox inbox;
    const auto call = [&](int) { row.callable(); };
    const Ints with_inbox(kTopic, call, inbox);
    const Ints direct(kTopic, call);
    is_tracing = row.traced_before;

    for (const auto& step : {std::function<void()>([] { zorvix::Publisher(kTopic).Publish(1); }),
                             std::function<void()>([&] { inbox.Drain(); })}) {
      try {
        step();
      } catch (int) {
      }
    }

    EXPECT_EQ(TakeSections(), row.sections);
  }
}

TEST_F(Traces, PendingMessagesOfInboxesAndQueuedSubscribersAreCounters) {
  Inbox inbox("frames");
  const Ints with_inbox(kTopic, ignore, inbox);
  std::optional queued(Ints(kTopic, ignore, Delivery::Queued));
  for (const int number : {1, 2}) zorvix::Publisher(kTopic).Publish(number);
  inbox.Drain();
  queued.reset();

  std::map<std::string, std::vector<std::int64_t>> counters;
  for (const auto& [name, value] : TheTrace().counters) counters[name].push_back(value);
  EXPECT_EQ(counters["pending frames, zorvix_test"], (std::vector<std::int64_t>{1, 2, 1, 0}));
  EXPECT_EQ(counters["pending t, zorvix_test"], (std::vector<std::int64_t>{1, 2, 0}));
  EXPECT_EQ(counters.size(), 2u);
}

}  // namespace
