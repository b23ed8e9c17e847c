// The cases, in the order of the table, and the parts that they consist of.
#include <android/log.h>
#include <zorvix/typed.h>

#include <any>
#include <array>
#include <atomic>
#include <boost/asio.hpp>
#include <boost/signals2/signal.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "measure.h"

namespace {

using namespace bridge;

using Payload = std::array<std::uint64_t, 8>;

Zorvix& the_bridge = Zorvix::GetInstance();
std::any sync_message = Payload{};  // not moved from by a Sync publication, so it is reused

constexpr char kSignals2[] = "Boost.Signals2";
constexpr char kShortName[] = "odometry";
constexpr char kLongName[] = "vehicle/chassis/rear_axle/left_wheel/wheel_encoder/odometry/";
const zorvix::Topic<Payload> kTyped{"distance"};

std::shared_ptr<const Control> MakeControl(std::string name, BridgeModule module, BridgeType type) {
  return std::make_shared<const Control>(Control{std::move(name), module, type});
}

std::atomic<std::size_t> received_by_workers{0};

void Receive(const Payload& payload) { benchmark::DoNotOptimize(payload[0]); }
void ReceiveAny(const std::any& message) { Receive(std::any_cast<const Payload&>(message)); }

void ReceiveOnWorker(const Payload& payload) {
  Receive(payload);
  ++received_by_workers;
}
void ReceiveAnyOnWorker(const std::any& message) {
  ReceiveAny(message);
  ++received_by_workers;
}

// A topic of the bridge and a signal with the same subscribers.
struct Topic {
  explicit Topic(std::string name, std::size_t subscribers = 1, BridgeType type = BridgeType::Sync,
                 void (*callable)(const std::any&) = ReceiveAny)
      : control(MakeControl(std::move(name), BridgeModule::Topic, type)) {
    for (std::size_t i = 0; i < subscribers; ++i) {
      callback = std::make_shared<std::function<void(const std::any&)>>(callable);
      the_bridge.RegisterSubscriber(control, callback);
      signal.connect(callable);
    }
  }
  // Removes the name with all its subscribers, since the control has no other owner.
  ~Topic() { the_bridge.UnregisterSubscriber(control, 0); }

  void Publish() { the_bridge.Publish(control, std::move(sync_message)); }
  void Emit() { signal(sync_message); }
  void Post() { the_bridge.Publish(control, Payload{}); }
  // Posts a closure with the same three fields as the bridge's.
  void PostOn(boost::asio::io_context& context) {
    boost::asio::post(context, [name = real_name, callback = callback,
                                message = std::any(Payload{})] { (*callback)(message); });
  }

  std::shared_ptr<const Control> control;
  const std::string real_name = Zorvix::GetRealName(control);
  SubscriberCallback callback;  // of the last subscriber
  boost::signals2::signal<void(const std::any&)> signal;
};

void Publish(benchmark::State& state, const char* name, std::size_t subscribers) {
  Topic topic(name, subscribers);
  Compare(state, kSignals2, OneThread([&] { topic.Publish(); }), OneThread([&] { topic.Emit(); }));
}

void PublishTyped(benchmark::State& state) {
  Topic plain(kShortName);
  const zorvix::Subscriber subscriber(kTyped, Receive);
  const zorvix::Publisher publisher(kTyped);
  Compare(state, "the plain interface", OneThread([&] { publisher.Publish(Payload{}); }),
          OneThread([&] { plain.Post(); }));
}

void PublishAmongMany(benchmark::State& state) {
  Topic topic(kShortName);
  const Measure alone = OneThread([&] { topic.Publish(); });
  const Measure among_many = [&alone] {
    std::deque<Topic> others;
    for (int i = 0; i < 20'000; ++i) others.emplace_back("topic" + std::to_string(i));
    alone();  // the caches are cold now
    return alone();
  };
  Compare(state, "the same alone", among_many, alone);
}

void PublishOnTwoThreads(benchmark::State& state, bool one_topic) {
  Topic topic(kShortName);
  Topic other("distance");
  Topic& second = one_topic ? topic : other;
  Compare(state, kSignals2, TwoThreads([&] { topic.Publish(); }, [&] { second.Publish(); }),
          TwoThreads([&] { topic.Emit(); }, [&] { second.Emit(); }));
}

void Call(benchmark::State& state, const char* name) {
  const auto serve = [](const std::any& request, std::any& response) {
    response = std::any_cast<const Payload&>(request)[0];
  };
  const auto request = [](const auto& server) {
    std::any response;
    server(sync_message, response);
    benchmark::DoNotOptimize(std::any_cast<std::uint64_t>(response));
  };
  auto control = MakeControl(name, BridgeModule::Service, BridgeType::Sync);
  the_bridge.RegisterServer(control, std::make_shared<ServerCallback::element_type>(serve));
  boost::signals2::signal<void(const std::any&, std::any&)> signal;
  signal.connect(serve);
  Compare(state, kSignals2, OneThread([&] { the_bridge.Call(control, request); }),
          OneThread([&] { request(signal); }));
  the_bridge.UnregisterServer(control, 0);
}

// Waits until workers have received a whole burst.
void AwaitBurst(std::size_t burst) {
  while (received_by_workers != burst) std::this_thread::yield();
  received_by_workers = 0;
}

// One burst of a queue: `post` is called `size` times, then `drain` if there are no workers.
struct Burst {
  std::size_t size;
  std::size_t workers;

  template <typename Post, typename Drain>
  Measure ToMeasure(Post post, Drain drain) const {
    const auto step = [burst = *this, post, drain] {
      for (std::size_t i = 0; i < burst.size; ++i) post();
      if (burst.workers == 0) {
        drain();
      } else {
        AwaitBurst(burst.size);
      }
    };
    return OneThread(step, size);
  }
};

// Compares with Boost.Asio, with as many workers there as here. The workers of one side sleep while
// the other side is measured.
template <typename Post, typename Drain, typename PostOn>
void CompareQueues(benchmark::State& state, Burst burst, Post post, Drain drain, PostOn post_on) {
  boost::asio::io_context context;
  const auto strand = boost::asio::make_strand(context);
  auto work = boost::asio::make_work_guard(context);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < burst.workers; ++i) threads.emplace_back([&] { context.run(); });
  if (burst.workers != 0) threads.emplace_back([=] { the_bridge.Spin(burst.workers); });

  const auto post_peer = [&] { post_on(context, strand); };
  const auto drain_peer = [&] { context.poll(); };
  Compare(state, "Boost.Asio", burst.ToMeasure(post, drain),
          burst.ToMeasure(post_peer, drain_peer));

  the_bridge.StopSpin();
  work.reset();
  for (auto& thread : threads) thread.join();
}

void PublishAsync(benchmark::State& state, Burst burst, int minimum_priority) {
  __android_log_set_minimum_priority(minimum_priority);
  Topic topic(kShortName, 1, BridgeType::Async,
              burst.workers == 0 ? ReceiveAny : ReceiveAnyOnWorker);
  CompareQueues(
      state, burst, [&] { topic.Post(); }, [] { the_bridge.SpinOnce(); },
      [&](auto& context, auto&) { topic.PostOn(context); });
}

// Delivers typed messages in order and one at a time: through an inbox, or through the bridge's
// queue. A task on the peer's strand shares the callback and holds the message by value.
void PublishInOrder(benchmark::State& state, Burst burst, bool to_inbox) {
  const auto receive = burst.workers == 0 ? Receive : ReceiveOnWorker;
  const auto callback = std::make_shared<std::function<void(const Payload&)>>(receive);
  zorvix::Inbox inbox;
  const zorvix::Subscriber subscriber =
      to_inbox ? zorvix::Subscriber(kTyped, receive, inbox)
               : zorvix::Subscriber(kTyped, receive, zorvix::Delivery::Queued);
  const zorvix::Publisher publisher(kTyped);
  const auto drain = [&] {
    if (to_inbox) {
      inbox.Drain();
    } else {
      the_bridge.SpinOnce();
    }
  };
  CompareQueues(
      state, burst, [&] { publisher.Publish(Payload{}); }, drain,
      [&](auto&, auto& strand) {
        boost::asio::post(strand, [callback, message = Payload{}] { (*callback)(message); });
      });
}

void Register(benchmark::State& state, std::size_t subscribers) {
  Topic topic(kShortName, subscribers);
  const auto callback = std::make_shared<std::function<void(const std::any&)>>(ReceiveAny);
  const auto register_and_unregister = [&] {
    auto control = topic.control;
    the_bridge.RegisterSubscriber(control, callback);
    the_bridge.UnregisterSubscriber(control, reinterpret_cast<unsigned long>(callback.get()));
  };
  Compare(state, kSignals2, OneThread(register_and_unregister),
          OneThread([&] { topic.signal.connect(ReceiveAny).disconnect(); }));
}

template <typename Function, typename... Arguments>
void Add(const std::string& name, int rounds, Function run, Arguments... arguments) {
  benchmark::RegisterBenchmark(name.c_str(), run, arguments...)->Iterations(rounds);
}

template <typename Step>
void AddPart(const char* name, const Counts& counts, Step step) {
  const auto run = [=](benchmark::State& state) {
    for (auto _ : state) step();
    for (std::size_t i = 0; i < counts.size(); ++i) state.counters[kAddedUp[i]] = counts[i];
  };
  benchmark::RegisterBenchmark(name, run)->MinTime(0.2);
}

const auto control = MakeControl(kShortName, BridgeModule::Topic, BridgeType::Async);
std::mutex mutex;
std::string_view suffix = "/Topic/Sync";
std::unordered_map<const Control*, int> table{{control.get(), 0}};
std::function<void(const std::any&)> function = ReceiveAny;

void AddSyncCases() {
  for (int subscribers = 1; subscribers <= 256; subscribers *= 2) {
    Add("Sync publish to " + std::to_string(subscribers), 150, Publish, kShortName, subscribers);
  }
  Add("Sync publish to 1, name of 60 characters", 150, Publish, kLongName, 1);
  Add("Sync publish to 1, typed, a new message each time", 150, PublishTyped);
  Add("Sync publish to 1 among 20,000 topics", 10, PublishAmongMany);
  Add("Sync publish to 1 on 2 threads, one topic each", 150, PublishOnTwoThreads, false);
  Add("Sync publish to 1 on 2 threads, same topic", 150, PublishOnTwoThreads, true);
  Add("Sync call", 150, Call, kShortName);
  Add("Sync call, name of 60 characters", 150, Call, kLongName);
}

void AddQueueCases() {
  const auto add_async = [](const char* name, Burst burst) {
    Add(name, 150, PublishAsync, burst, kLogInfo);
  };
  add_async("Async publish and drain", {64, 0});
  add_async("Async publish to a worker, 1 at a time", {1, 1});
  add_async("Async publish to a worker, 64 at a time", {64, 1});
  add_async("Async publish to 2 workers, 64 at a time", {64, 2});

  Add("Queued delivery by a worker, 64 at a time", 150, PublishInOrder, Burst{64, 1}, false);
  Add("Queued delivery by 2 workers, 64 at a time", 150, PublishInOrder, Burst{64, 2}, false);
  for (const bool to_inbox : {false, true}) {
    const std::string to = to_inbox ? "an inbox" : "a queued subscriber";
    for (const std::size_t size : {64u, 8u, 1u}) {
      Add("Publish to " + to + " and drain, " + std::to_string(size) + " at a time", 150,
          PublishInOrder, Burst{size, 0}, to_inbox);
    }
  }
}

void AddRegisterCases() {
  Add("Register and unregister 1 subscriber, 1 on the topic", 150, Register, 1);
  Add("Register and unregister 1 subscriber, 1,000 on the topic", 150, Register, 1000);
}

void AddParts() {
  AddPart("free mutex locked and unlocked", {2, 2, 4}, [] { const std::lock_guard lock(mutex); });
  AddPart("name composed in place", {1, 1, 0}, [] {
    std::array<char, 128> buffer;
    benchmark::DoNotOptimize(suffix);
    const std::size_t length = control->name.copy(buffer.data(), buffer.size());
    suffix.copy(buffer.data() + length, buffer.size() - length);
    benchmark::DoNotOptimize(buffer);
  });
  AddPart("name composed in a string", {0, 0, 1},
          [] { benchmark::DoNotOptimize(Zorvix::GetRealName(control)); });
  AddPart("lookup in the table", {1, 1, 1},
          [] { benchmark::DoNotOptimize(table.find(control.get())->second); });
  AddPart("shared pointer copied and dropped", {1, 1, 2}, [] {
    const auto copy = control;
    benchmark::DoNotOptimize(copy);
  });
  AddPart("call through `std::function`", {1, 2, 2}, [] {
    benchmark::DoNotOptimize(function);
    function(sync_message);
  });
  AddPart("heap block of 64 bytes taken and given back", {0, 0, 2},
          [] { benchmark::DoNotOptimize(std::unique_ptr<Payload>(new Payload)); });
  AddPart("queue-size line formatted", {0, 0, 1},
          [] { BRIDGE_LOG(kLogInfo, "event queue size: %zu", control->name.size()); });
}

void AddLogCases() {
  const std::string name = "Async publish and drain, log into a file";
  Add(name, 150, PublishAsync, Burst{64, 0}, kLogInfo);
  Add(name + ", from WARN on", 150, PublishAsync, Burst{64, 0}, kLogWarn);
}

}  // namespace

void AddCases() {
  if (ZORVIX_BENCH_KEEPS_LOG) {
    AddLogCases();
    return;
  }
  AddSyncCases();
  AddQueueCases();
  AddRegisterCases();
  AddHandleCases();
  AddParts();
}
