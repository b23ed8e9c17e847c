// What the handles promise about threads, for many orders of the steps of a few threads.
#include <android/log.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <zorvix/inspect.h>
#include <zorvix/typed.h>
#include <zorvix/zorvix_flat.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "schedule.h"

extern "C" int __android_log_print(int, const char*, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  va_arg(arguments, const char*);
  va_arg(arguments, int);
  const std::string message = va_arg(arguments, const char*);
  va_end(arguments);
  const bool is_wait = message.find("a destructor waits") == 0;
  const auto time = schedule::chrono::steady_clock::now() - schedule::kStart;
  schedule::Expect(!is_wait || time > std::chrono::milliseconds(900), "it has waited for long");
  return 0;
}

// In place of the bridge's, whose workers are no threads of the scheduler. Here the calling thread
// is the only worker.
namespace bridge {
namespace {
schedule::mutex spin_mutex;
schedule::atomic<bool> is_stopped{false};
schedule::atomic<int> spinning{0};
int stops = 0;
}  // namespace

void Zorvix::Spin(unsigned long) {
  {
    const std::lock_guard lock(spin_mutex);
    is_stopped = false;
  }
  ++spinning;
  while (!is_stopped) {
    if (!RunOneceStep()) schedule::LetOthersGoOn();
  }
  SpinOnce();
  --spinning;
}

void Zorvix::StopSpin() {
  const std::lock_guard lock(spin_mutex);
  is_stopped = true;
  ++stops;
  for (int i = 0; i < 2 && spinning != 0; ++i) {
    schedule::this_thread::sleep_for(std::chrono::milliseconds(101));
  }
}
}  // namespace bridge

namespace {

using schedule::Expect;
using schedule::InParallel;
using schedule::Timeouts;
using std::chrono::milliseconds;
using zorvix::Delivery;
using zorvix::Inbox;
using zorvix::Why;
using Clock = schedule::chrono::steady_clock;
using Client = zorvix::Client<int, int>;
using Holder = zorvix::Holder<std::string>;
using Server = zorvix::Server<int, int>;
using Watcher = zorvix::Watcher<std::string>;

const zorvix::Topic<int> kNumbers{"numbers"};
const zorvix::Topic<std::string> kTexts{"texts"};  // their copies are on the heap
const zorvix::Topic<int, bridge::BridgeType::Async> kTasks{"tasks"};
const zorvix::Service<int, int> kService{"service"};
const zorvix::State<std::string> kState{"state"};

constexpr auto kNoLimit = zorvix::Timeout::Forever();

int Same(int request) { return request; }
void Sleep(milliseconds time) { schedule::this_thread::sleep_for(time); }

// The scenario has the name of the test.
void Explore(Timeouts timeouts, const std::function<void()>& scenario) {
  schedule::Explore(testing::UnitTest::GetInstance()->current_test_info()->name(), timeouts,
                    scenario);
}
void Explore(const std::function<void()>& scenario) { Explore(Timeouts::kAreFaults, scenario); }

// A part of a callable, which is used while the callable is invoked.
class Captured {
 public:
  static inline std::atomic<int> existing{0};

  void Use() const {
    ++state_->users;
    schedule::Pause();
    --state_->users;
  }

 private:
  struct State {
    State() { ++existing; }
    ~State() {
      Expect(users == 0, "a callable is destroyed after its invocations");
      --existing;
    }
    std::atomic<int> users{0};
  };
  std::unique_ptr<State> state_ = std::make_unique<State>();
};

template <typename Handle>
void Destroy(std::optional<Handle>& handle) {
  handle.reset();
  Expect(Captured::existing == 0, "the callable is destroyed with its handle");
}

auto Publishing(int number) {
  return [number] { zorvix::Publisher(kNumbers).Publish(number); };
}

// Another thread may go on while it is moved.
struct Moved {
  Moved(int its_number) : number(its_number) {}
  Moved(const Moved&) = default;
  Moved(Moved&& other) noexcept : number(0) {
    schedule::Pause();
    number = other.number;
  }
  int number;
};
const zorvix::Service<int, Moved> kMoving{"moving"};
const auto move = [](int number) { return Moved(number); };

// Waits, whatever it is called with, until the flag is set.
auto WaitingFor(const std::atomic<bool>& flag) {
  return [&](auto&&...) {
    while (!flag) schedule::LetOthersGoOn();
  };
}

// Runs tasks until the condition is true.
template <typename Condition>
void WorkUntil(const Condition& condition) {
  while (!condition()) {
    if (!ZorvixRunOneceStep()) schedule::LetOthersGoOn();
  }
}

using Handle = std::shared_ptr<void>;
template <typename Any>
Handle Share(Any handle) {
  return std::make_shared<Any>(std::move(handle));
}

auto Using() {
  return [captured = Captured()](auto&&...) {
    captured.Use();
    return 1;
  };
}
void Call() {
  Inbox answers;
  Client(kService, answers).Call(1, [](auto) {});
}
void Set() { Holder(kState).Set("1"); }
void Subscribe() {
  const zorvix::Subscriber counted(kNumbers, [](int) {});
}
Handle MakeClient(Client client) {
  client.Call(1, Using());  // there is no server
  return Share(std::move(client));
}

// A kind of handle with a callable, and what leads to an invocation.
struct Kind {
  const char* name;
  std::function<Handle(Inbox& inbox)> make;
  std::function<void()> use;
  friend void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }
};
const Kind kKinds[] = {
    {"Subscriber", [](auto&) { return Share(zorvix::Subscriber(kNumbers, Using())); },
     Publishing(1)},
    {"QueuedSubscriber",
     [](auto&) { return Share(zorvix::Subscriber(kNumbers, Using(), Delivery::Queued)); },
     Publishing(1)},
    {"SubscriberWithInbox",
     [](auto& inbox) { return Share(zorvix::Subscriber(kNumbers, Using(), inbox)); },
     Publishing(1)},
    {"Server", [](auto&) { return Share(Server(kService, Using())); }, Call},
    {"QueuedServer", [](auto&) { return Share(Server(kService, Using(), Delivery::Queued)); },
     Call},
    {"ServerWithInbox", [](auto& inbox) { return Share(Server(kService, Using(), inbox)); }, Call},
    {"QueuedClient",
     [](auto&) {
       return MakeClient({kService, Delivery::Queued});
     },
     [] {}},
    {"ClientWithInbox",
     [](auto& inbox) {
       return MakeClient({kService, inbox});
     },
     [] {}},
    {"Watcher", [](auto&) { return Share(Watcher(kState, Using())); }, Set},
    {"QueuedWatcher", [](auto&) { return Share(Watcher(kState, Using(), Delivery::Queued)); }, Set},
    {"WatcherWithInbox", [](auto& inbox) { return Share(Watcher(kState, Using(), inbox)); }, Set},
    {"Presence", [](auto&) { return Share(zorvix::Presence(kNumbers, Using())); }, Subscribe},
    {"PresenceWithInbox",
     [](auto& inbox) { return Share(zorvix::Presence(kNumbers, Using(), inbox)); }, Subscribe}};

class SchedulesOf : public testing::TestWithParam<Kind> {};
INSTANTIATE_TEST_SUITE_P(, SchedulesOf, testing::ValuesIn(kKinds),
                         [](const auto& kind) { return std::string(kind.param.name); });

TEST_P(SchedulesOf, CallableIsNotInvokedAfterItsHandle) {
  Explore([] {
    Inbox inbox;
    Handle handle = GetParam().make(inbox);
    const auto use = GetParam().use;
    use();
    std::atomic<bool> is_destroyed{false};
    const zorvix::Subscriber other(kNumbers, WaitingFor(is_destroyed));
    inbox.Post(WaitingFor(is_destroyed));
    const auto drain = [&] {
      inbox.Drain();
      ZorvixRunOneceStep();
    };

    InParallel({use, drain, [&] {
                  handle.reset();
                  Expect(Captured::existing == 0, "the callable is destroyed with its handle");
                  is_destroyed = true;  // the destructor waits for no other callable
                }});
    drain();
  });
}

TEST(Schedules, CallableThatDestroysItsHandleWaitsForOtherThreads) {
  Explore([] {
    std::atomic<int> others{0};
    const zorvix::Subscriber between(kTexts, [](const std::string&) { Publishing(0)(); });
    std::optional<zorvix::Subscriber<int>> subscriber(
        std::in_place, kNumbers, [&, captured = Captured()](int number) {
          if (number == 3) {
            zorvix::Publisher(kTexts).Publish("");  // nested, with another gate between
            Expect(Captured::existing == 1, "the outermost invocation keeps the callable");
            captured.Use();
          } else if (number == 0) {
            subscriber.reset();
            Expect(others == 0, "the destructor waits for other threads");
            captured.Use();
          } else {
            ++others;
            if (number == 1) Publishing(4)();  // nested
            captured.Use();
            --others;
          }
        });

    InParallel({Publishing(1), Publishing(2), Publishing(3)});

    Expect(Captured::existing == 0, "the callable is destroyed by the last invocation");
  });
}

TEST(Schedules, MessagesOfAPublisherAreInvokedInTheirOrderAndOneAtATime) {
  Explore([] {
    Inbox inbox;
    std::vector<int> received[2];
    const auto append_to = [](std::vector<int>& numbers) {
      return [&](int number) { numbers.push_back(number); };
    };
    const zorvix::Subscriber with_inbox(kNumbers, append_to(received[0]), inbox);
    const zorvix::Subscriber queued(kNumbers, append_to(received[1]), Delivery::Queued);
    const auto publish = [](int first) {
      return [first] {
        const zorvix::Publisher publisher(kNumbers);
        for (int number = first; number < first + 2; ++number) publisher.Publish(number);
      };
    };
    const auto drain = [&] {
      inbox.Drain();
      ZorvixRunOneceStep();
    };

    InParallel({publish(10), publish(20), drain, drain});
    inbox.Drain();
    ZorvixSpinOnce();

    for (auto& numbers : received) {
      const auto is_of_first = [](int number) { return number < 20; };
      std::stable_partition(numbers.begin(), numbers.end(), is_of_first);
      Expect(numbers == std::vector{10, 11, 20, 21}, "in the order of each publisher");
    }
  });
}

TEST(Schedules, DrainsGoOnAfterACallableThatDestroysItsHandleAndThrows) {
  Explore([] {
    Inbox inbox;
    int posted = 0;
    const auto post = [&](void*) { inbox.Post([&] { ++posted; }); };
    std::optional<zorvix::Subscriber<int>> subscriber;
    subscriber.emplace(
        kNumbers,
        [&, at_its_end = std::shared_ptr<void>(nullptr, post)](int) {
          subscriber.reset();
          throw 1;
        },
        inbox);
    std::optional<zorvix::Subscriber<int>> other(
        std::in_place, kNumbers, [](int) {}, inbox);
    Publishing(1)();
    const auto drain = [&] {
      try {
        inbox.Drain();
      } catch (int) {
      }
    };

    InParallel({[&] { other.reset(); }, drain, drain});
    drain();

    Expect(posted == 1, "the callable is destroyed under no lock");
  });
}

TEST(Schedules, MessagesAreInvokedOrCountedAsDropped) {
  Explore([] {
    Inbox inbox;
    std::vector<int> received;
    const zorvix::Subscriber subscriber(
        kNumbers, [&](int number) { received.push_back(number); }, inbox, zorvix::KeepLast{1});
    const auto drain = [&] { inbox.Drain(); };

    InParallel({Publishing(1), Publishing(2), drain, drain});
    drain();

    std::size_t sum = received.size();
    for (const auto& handle : zorvix::Inspect()) sum += handle.dropped;
    Expect(sum == 2, "each message is invoked or counted");
  });
}

TEST(Schedules, DestroyedInboxIgnoresWhatArrives) {
  Explore([] {
    std::optional<Inbox> inbox(std::in_place);
    bool exists = true;
    const auto check = [&] { Expect(exists, "an inbox that is destroyed invokes nothing"); };
    std::optional<zorvix::Subscriber<std::string>> subscriber(
        std::in_place, kTexts, [&](const std::string&) { check(); }, *inbox);
    const Server server(
        kService, [&](int request) { return check(), request; }, *inbox);
    const Client client(kService, *inbox);
    inbox->Post(check);

    InParallel({[&] {
                  client.Call(1, [&](auto) { check(); });
                  zorvix::Publisher(kTexts).Publish("text");
                  subscriber.reset();
                },
                [] { Expect(Client(kService).Call(1).why() == Why::Destroyed, "each call ends"); },
                [&] {
                  inbox.reset();
                  exists = false;
                }});
  });
}

TEST(Schedules, StopWithoutLimitProcessesWhatIsPending) {
  Explore([] {
    Inbox inbox;
    int before = 0;
    int meanwhile = 0;
    zorvix::InboxThread thread(inbox);

    InParallel({[&] {
                  inbox.Post([&] { ++before; });
                  thread.Stop();
                  Expect(before == 1, "what was posted before the stop is processed");
                },
                [&] { inbox.Post([&] { ++meanwhile; }); }});

    inbox.Drain();
    Expect(meanwhile == 1, "what is not processed stays in the inbox");
  });
}

TEST(Schedules, DrainWithATimeoutInvokesNoFurtherCallableOnceItIsOver) {
  Explore([] {
    Inbox inbox;
    for (int i = 0; i < 3; ++i) inbox.Post([] { Sleep(milliseconds(2)); });

    Expect(inbox.Drain(milliseconds(3)) == 2, "two callables begin in that time");
    Expect(inbox.Drain(milliseconds(0)) == 1, "one is invoked however short the time is");
  });
}

TEST(Schedules, StopBeginsNoCallableAfterItsTimeout) {
  Explore(Timeouts::kAreExpected, [] {
    Inbox inbox;
    std::vector<int> invoked;
    for (int i = 0; i < 3; ++i) {
      inbox.Post([&, i] {
        invoked.push_back(i);
        Sleep(milliseconds(2));
      });
    }
    zorvix::InboxThread thread(inbox);

    InParallel({[&] {
      const auto begin = Clock::now();
      const bool processed_all = thread.Stop(milliseconds(1));
      Expect(Clock::now() < begin + milliseconds(4), "one callable may be in progress");
      Expect(processed_all == (invoked.size() == 3), "it returns whether all is processed");
      Expect(thread.Stop(kNoLimit) == processed_all, "it is stopped already");
    }});

    inbox.Drain();
    Expect(invoked == std::vector{0, 1, 2}, "the rest stays in the inbox, in order");
  });
}

TEST(Schedules, EachWaitEndsOnceSomethingIsPending) {
  Explore([] {
    Inbox inbox;
    const auto wait = [&] { Expect(inbox.Wait(kNoLimit), "something is pending"); };
    const auto is_readable = [&] {
      pollfd readable = {inbox.fd(), POLLIN, 0};
      return poll(&readable, 1, 0) == 1;
    };

    const auto wait_long = [&] { Expect(inbox.Wait(milliseconds::max()), "so long is forever"); };

    InParallel({wait, wait_long, [&] { inbox.Post([] {}); }, [&] { inbox.fd(); }});

    Expect(is_readable(), "the descriptor is readable while something is pending");
    Expect(inbox.Drain() == 1, "Wait takes nothing");
    Expect(!is_readable(), "the descriptor is readable while something is pending");
  });
}

// The queue holds 100 tasks: the next one drops the oldest, which is that of the dispatcher.
TEST(Schedules, QueuedMessageIsInvokedEvenIfItsTaskIsDropped) {
  Explore([] {
    int received = 0;
    const zorvix::Subscriber queued(
        kNumbers, [&](int) { ++received; }, Delivery::Queued);
    const zorvix::Subscriber ignore(kTasks, [](int) {});
    const zorvix::Publisher tasks(kTasks);
    Publishing(1)();
    for (int i = 0; i < 99; ++i) tasks.Publish(i);

    InParallel({Publishing(2), [&] { tasks.Publish(0); }, ZorvixRunOneceStep});
    WorkUntil([&] { return received == 2; });
    ZorvixSpinOnce();
  });
}

TEST(Schedules, QueuedSubscribersMayPublishToEachOther) {
  Explore([] {
    const zorvix::Topic<int> ping{"ping"};
    const zorvix::Topic<int> pong{"pong"};
    int pings = 0;
    int pongs = 0;
    const auto answer_ping = [&](int number) {
      if (++pings < 3) zorvix::Publisher(pong).Publish(number);
    };
    const auto answer_pong = [&](int number) {
      ++pongs;
      zorvix::Publisher(ping).Publish(number);
    };
    const zorvix::Subscriber a(ping, answer_ping, Delivery::Queued);
    const zorvix::Subscriber b(pong, answer_pong, Delivery::Queued);
    zorvix::Publisher(ping).Publish(1);
    zorvix::Publisher(pong).Publish(2);

    InParallel({ZorvixRunOneceStep, ZorvixRunOneceStep});
    WorkUntil([&] { return pings == 4 && pongs == 3; });
    ZorvixSpinOnce();
  });
}

TEST(Schedules, ServerIsReplacedDuringACall) {
  Explore([] {
    Inbox inbox;
    std::optional<Server> first(
        std::in_place, kService,
        [captured = Captured()](int) {
          captured.Use();
          return 1;
        },
        inbox);
    std::optional<Server> second;
    const Client client(kService);
    auto plain = std::make_shared<const bridge::Control>(
        bridge::Control{kService.name, bridge::BridgeModule::Service, bridge::BridgeType::Sync});
    ZorvixRegisterClient(plain);

    InParallel({[&] {
                  const auto answer = client.Call(0);
                  const int server = answer.value_or(0);
                  const bool is_lost = answer.why() == Why::Destroyed;
                  Expect(server == 1 || server == 2 || is_lost, "each call ends");
                },
                [&] {
                  std::any answer;  // of a call without a handle
                  const auto call = [&](const auto& serve) { serve(0, answer); };
                  bridge::Zorvix::GetInstance().Call(plain, call);
                },
                [&] { inbox.Drain(); },
                [&] {
                  second.emplace(kService, [](int) { return 2; });
                  Destroy(first);
                }});

    Expect(client.Call(0) == 2, "the latest server is asked");
    ZorvixUnregisterClient(plain);
  });
}

TEST(Schedules, ClientIsDestroyedDuringItsReply) {
  Explore(Timeouts::kAreExpected, [] {
    Inbox servers;
    Inbox clients;
    const zorvix::Server server(kMoving, move, servers);
    std::optional<zorvix::Client<int, Moved>> client(std::in_place, kMoving, clients);
    client->Call(1, milliseconds(1), [captured = Captured()](const auto&) { captured.Use(); });

    InParallel({[&] { servers.Drain(); }, [&] { clients.Drain(); }, [&] { Destroy(client); }});

    Expect(!clients.Wait(milliseconds(2)), "a call of a destroyed client ends no wait");
  });
}

TEST(Schedules, CallEndsWithItsAnswerOrItsTimeout) {
  Explore(Timeouts::kAreExpected, [] {
    Inbox inbox;
    const zorvix::Server server(kMoving, move, inbox);

    InParallel({[&] {
                  const auto answer = zorvix::Client(kMoving).Call(1, milliseconds(1));
                  const Why why = answer.why();
                  Expect(answer ? answer->number == 1 : why == Why::TimedOut, "a call ends");
                  schedule::Pause();
                  Expect(answer.why() == why, "a late answer is ignored");
                },
                [&] { inbox.Drain(); }});
  });
}

TEST(Schedules, ReplyIsSettledOnce) {
  Explore(Timeouts::kAreExpected, [] {
    std::optional<zorvix::Reply<int>> kept[2];
    const Server server(kService, [&](int, const zorvix::Reply<int>& reply) {
      for (auto& copy : kept) copy = reply;
    });
    Inbox inbox;
    const Client client(kService, inbox);
    std::vector<Why> seen;
    client.Call(1, milliseconds(1), [&](auto answer) { seen.push_back(answer.why()); });

    InParallel({[&] { (*kept[0])(1); },
                [&] {
                  kept[1]->Refuse();
                  kept[1].reset();
                },
                [&] { inbox.Wait(); }});
    inbox.Drain();

    Expect(seen.size() == 1, "the first answer, refusal or timeout counts");
  });
}

TEST(Schedules, CallableOfACallIsInvokedOnce) {
  Explore(Timeouts::kAreExpected, [] {
    Inbox servers;
    Inbox clients;
    const Server server(kService, Same, servers);
    const Client client(kService, clients, zorvix::KeepLast{1});
    int invoked = 0;
    const auto call = [&] {
      client.Call(1, milliseconds(1), [&](zorvix::Answer<int>) { ++invoked; });
    };
    const auto take = [&] {
      while (invoked < 2) {
        clients.Wait();
        clients.Drain();
      }
    };

    InParallel({call, call, take, [&] { servers.Drain(); }});
    servers.Drain();
    clients.Drain();

    Expect(invoked == 2, "with its answer, its timeout, or since there are too many calls");
  });
}

TEST(Schedules, EachWaitForAValueOrAServerEndsOnceThereIsOne) {
  Explore([] {
    Holder holder(kState);
    const Watcher watcher(kState);
    const Client client(kService);
    std::optional<Server> server;
    const auto wait_for_value = [&] { Expect(*watcher.WaitForValue() == "1", "it returns it"); };
    const auto wait = [&] { Expect(client.WaitForServer(kNoLimit), "there is a server"); };

    InParallel({wait_for_value, wait_for_value, wait, wait, [&] {
                  holder.Set("1");
                  server.emplace(kService, Same);
                }});
  });
}

TEST(Schedules, NewWatcherHasTheLatestValue) {
  Explore([] {
    Holder holder(kState);
    holder.Set("1");
    const Watcher early(kState);
    std::string seen;
    std::optional<Watcher> watcher;

    InParallel({[&] { holder.Set("2"); },
                [&] {
                  watcher.emplace(kState, [&](const std::string& value) { seen = value; });
                  static_cast<void>(early.Latest());
                  holder.Set("3");
                }});

    const std::string newest = *watcher->Latest();
    Expect(*early.Latest() == newest, "all watchers agree");
    Expect(newest != "1", "a watcher has the latest value");
    Expect(seen == newest, "its callable has had it");
  });
}

TEST(Schedules, ValueOutlivesItsHolder) {
  Explore([] {
    std::optional<Holder> first(std::in_place, kState);
    first->Set("1");
    std::optional<Holder> second;
    std::optional<Watcher> watcher;

    InParallel({[&] {
                  second.emplace(kState);
                  second->Set("2");
                  first.reset();
                },
                [&] {
                  watcher.emplace(kState);
                  const auto value = watcher->WaitForValue();
                  schedule::Pause();
                  Expect(value->size() == 1, "a value exists as long as others have it");
                }});

    Expect(*watcher->Latest() == "2", "a watcher has the value of the latest holder");
  });
}

TEST(Schedules, PresenceCountsEachHandle) {
  Explore([] {
    std::optional<zorvix::Presence> presence;
    std::size_t seen = 0;
    std::optional<Server> server;
    std::optional<Server> early(std::in_place, kService, Same);

    InParallel({[&] { presence.emplace(kService, [&](auto now) { seen = now.count; }); },
                [&] { server.emplace(kService, Same); }, [&] { early.reset(); }});

    Expect(presence->Now().count == 1, "a presence counts the handles that exist");
    Expect(seen == 1, "its callable has had the latest count");
  });
}

TEST(Schedules, InspectSeesCompleteHandles) {
  Explore([] {
    Inbox inbox;
    Holder holder(kState);
    const Watcher watcher(kState);
    const Client client(kService, inbox);

    InParallel({[] { zorvix::Inspect(); },
                [&] {
                  const zorvix::Subscriber subscriber(
                      kNumbers, [](int) {}, inbox);
                  Publishing(1)();
                  inbox.Drain();
                },
                [&] {
                  holder.Set("1");
                  client.Call(1, [](auto) {});
                }});
  });
}

TEST(Schedules, WorkersEndWithTheirLastOwner) {
  Explore(Timeouts::kAreExpected, [] {
    std::atomic<int> received{0};
    const zorvix::Subscriber queued(
        kNumbers, [&](int) { ++received; }, Delivery::Queued);
    std::optional<zorvix::Workers> first(std::in_place, 1);
    Publishing(1)();
    while (received == 0) schedule::LetOthersGoOn();

    InParallel({[&] { first.reset(); }, Publishing(2),
                [] {
                  const zorvix::Workers second(1);
                  Sleep(milliseconds(50));
                }});
    ZorvixSpinOnce();

    Expect(received == 2, "what the workers leave is drained later");
  });
}

TEST(Schedules, StopReturnsWhenItsTimeIsOverOrOthersOwnTheWorkers) {
  Explore(Timeouts::kComeLast, [] {
    std::atomic<bool> has_ended{false};
    const zorvix::Subscriber queued(kNumbers, WaitingFor(has_ended), Delivery::Queued);
    zorvix::Workers first(1);
    Publishing(1)();
    const auto begin = Clock::now();

    InParallel({[&] {
                  first.Stop(milliseconds(10));
                  Expect(Clock::now() < begin + milliseconds(11), "its time is over");
                  first.Stop();
                  Expect(Clock::now() < begin + milliseconds(51), "others own the workers");
                  has_ended = true;
                },
                [&] {
                  Sleep(milliseconds(50));
                  const zorvix::Workers second(1);
                  WaitingFor(has_ended)();
                }});
    ZorvixSpinOnce();
  });
}

TEST(Schedules, StopLogsCallablesWhileHandlesAreDestroyed) {
  Explore(Timeouts::kComeLast, [] {
    std::atomic<bool> has_begun{false};
    const auto last_long = [&](int) {
      has_begun = true;
      Sleep(milliseconds(1500));
    };
    const zorvix::Subscriber queued(kNumbers, last_long, Delivery::Queued);
    std::optional<zorvix::Workers> workers(std::in_place, 1);
    Publishing(1)();
    const auto begin = Clock::now();
    WaitingFor(has_begun)();
    bridge::stops = 0;

    InParallel({[&] {
                  workers.reset();
                  Expect(Clock::now() < begin + milliseconds(1600), "it ends with the workers");
                },
                [] { const zorvix::Presence listed(kService); }});
    ZorvixSpinOnce();

    Expect(bridge::stops <= 2, "workers are stopped at most once a second");
  });
}

}  // namespace
