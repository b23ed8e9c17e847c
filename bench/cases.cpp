// The cases, in the order of the table, and the parts they are made of.
#include <zorvix/typed.h>

#include <any>
#include <boost/asio.hpp>
#include <boost/signals2/signal.hpp>
#include <cstdint>
#include <deque>
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

using bridge::BridgeModule;
using bridge::BridgeType;
using bridge::Control;
using bridge::Zorvix;

using Payload = std::array<std::uint64_t, 8>;
using Context = boost::asio::io_context;

Zorvix& the_bridge = Zorvix::GetInstance();
std::any sync_message = Payload{};  // left with the caller by every synchronous publication

constexpr char kSignals2[] = "Boost.Signals2";
constexpr char kShortName[] = "odometry";
constexpr char kLongName[] = "vehicle/chassis/rear_axle/left_wheel/wheel_encoder/odometry/";

std::shared_ptr<const Control> MakeControl(std::string name, BridgeModule module, BridgeType type) {
  return std::make_shared<const Control>(Control{std::move(name), module, type});
}

void Receive(const std::any& message) {
  benchmark::DoNotOptimize(std::any_cast<const Payload&>(message)[0]);
}

// One topic with the same subscribers on the bridge and as a signal.
struct Topic {
  template <typename Callable = decltype(&Receive)>
  explicit Topic(std::string name, std::size_t subscribers = 1, BridgeType type = BridgeType::Sync,
                 Callable callable = Receive)
      : control(MakeControl(std::move(name), BridgeModule::Topic, type)) {
    for (std::size_t i = 0; i < subscribers; ++i) {
      callback = std::make_shared<std::function<void(const std::any&)>>(callable);
      the_bridge.RegisterSubscriber(control, callback);
      signal.connect(callable);
    }
  }
  ~Topic() { the_bridge.UnregisterSubscriber(control, 0); }  // the last to leave takes all along

  void Publish() { the_bridge.Publish(control, std::move(sync_message)); }
  void Emit() { signal(sync_message); }
  void Post() { the_bridge.Publish(control, Payload{}); }
  // A closure of the same three fields as the bridge's.
  void PostOn(Context& context) {
    boost::asio::post(context, [name = real_name, callback = callback,
                                message = std::any(Payload{})] { (*callback)(message); });
  }

  std::shared_ptr<const Control> control;
  const std::string real_name = Zorvix::GetRealName(control);
  bridge::SubscriberCallback callback;  // of the last subscriber
  boost::signals2::signal<void(const std::any&)> signal;
};

void Publish(benchmark::State& state, const char* name, std::size_t subscribers) {
  Topic topic(name, subscribers);
  Compare(state, kSignals2, OneThread([&] { topic.Publish(); }), OneThread([&] { topic.Emit(); }));
}

void PublishTyped(benchmark::State& state) {
  Topic plain(kShortName);
  const zorvix::Topic<Payload> topic{"distance"};
  const zorvix::Subscriber subscriber(
      topic, [](const Payload& payload) { benchmark::DoNotOptimize(payload[0]); });
  const zorvix::Publisher publisher(topic);
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
  const auto server = std::make_shared<std::function<void(const std::any&, std::any&)>>(serve);
  auto control = MakeControl(name, BridgeModule::Service, BridgeType::Sync);
  the_bridge.RegisterServer(control, server);
  boost::signals2::signal<void(const std::any&, std::any&)> signal;
  signal.connect(serve);
  Compare(state, kSignals2, OneThread([&] { the_bridge.Call(control, request); }),
          OneThread([&] { request(signal); }));
  the_bridge.UnregisterServer(control, 0);
}

void PostAndDrain(benchmark::State& state) {
  Topic topic(kShortName, 1, BridgeType::Async);
  Context context;
  const auto work = boost::asio::make_work_guard(context);
  const auto measure = [](auto post, auto drain) {
    const auto step = [=] {
      for (int i = 0; i < 64; ++i) post();
      drain();
    };
    return OneThread(step, 64);
  };
  Compare(state, "Boost.Asio", measure([&] { topic.Post(); }, [] { the_bridge.SpinOnce(); }),
          measure([&] { topic.PostOn(context); }, [&] { context.poll(); }));
}

// Posts `burst` tasks and waits until they are done, again and again.
void PostToWorkers(benchmark::State& state, int burst, std::size_t workers, bool two_threads) {
  std::atomic<int> outstanding{0};
  Topic topic(kShortName, 1, BridgeType::Async, [&outstanding](const std::any& message) {
    Receive(message);
    --outstanding;
  });
  const auto measure = [&](auto post) {
    const auto step = [=, &outstanding] {
      outstanding += burst;
      for (int i = 0; i < burst; ++i) post();
      while (outstanding != 0) std::this_thread::yield();
    };
    const auto at_once = static_cast<std::size_t>(burst);
    return two_threads ? TwoThreads(step, step, at_once) : OneThread(step, at_once);
  };
  // All workers but one's sleep while that one's are measured.
  Context context;
  auto work = boost::asio::make_work_guard(context);
  std::vector<std::thread> threads;
  threads.emplace_back([=] { the_bridge.Spin(workers); });
  for (std::size_t i = 0; i < workers; ++i) threads.emplace_back([&] { context.run(); });
  while (!ZorvixIsSpin()) std::this_thread::yield();
  Compare(state, "Boost.Asio", measure([&] { topic.Post(); }),
          measure([&] { topic.PostOn(context); }));
  the_bridge.StopSpin();
  work.reset();
  for (auto& thread : threads) thread.join();
}

void Register(benchmark::State& state, std::size_t subscribers) {
  Topic topic(kShortName, subscribers);
  const auto callback = std::make_shared<std::function<void(const std::any&)>>(Receive);
  Compare(state, kSignals2, OneThread([&] {
            auto control = topic.control;
            the_bridge.RegisterSubscriber(control, callback);
            the_bridge.UnregisterSubscriber(control,
                                            reinterpret_cast<unsigned long>(callback.get()));
          }),
          OneThread([&] { topic.signal.connect(Receive).disconnect(); }));
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
std::function<void(const std::any&)> function = Receive;

const bool added = [] {
  for (int i = 1; i <= 256; i *= 2) {
    Add("Sync publish to " + std::to_string(i), 150, Publish, kShortName, i);
  }
  Add("Sync publish to 1, name of 60 characters", 150, Publish, kLongName, 1);
  Add("Sync publish to 1, typed, a new message each time", 150, PublishTyped);
  Add("Sync publish to 1 among 20,000 topics", 10, PublishAmongMany);
  Add("Sync publish to 1 on 2 threads, one topic each", 150, PublishOnTwoThreads, false);
  Add("Sync publish to 1 on 2 threads, same topic", 150, PublishOnTwoThreads, true);
  Add("Sync call", 150, Call, kShortName);
  Add("Sync call, name of 60 characters", 150, Call, kLongName);
  Add("Async publish and drain", 150, PostAndDrain);
  Add("Async publish to a worker, 1 at a time", 150, PostToWorkers, 1, 1, false);
  Add("Async publish to a worker, 64 at a time", 150, PostToWorkers, 64, 1, false);
  Add("Async publish to 2 workers, 64 at a time", 150, PostToWorkers, 64, 2, false);
  Add("Async publish to a worker on 2 threads, 32 at a time", 150, PostToWorkers, 32, 1, true);
  Add("Register and unregister 1 subscriber, 1 on the topic", 150, Register, 1);
  Add("Register and unregister 1 subscriber, 1,000 on the topic", 150, Register, 1000);

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
          [] { BRIDGE_LOG(bridge::kLogInfo, "event queue size: %zu", control->name.size()); });
  return true;
}();

}  // namespace
