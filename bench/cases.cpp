// The cases, in the order of the table.
#include <zorvix/zorvix.h>

#include <algorithm>
#include <any>
#include <array>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/signals2/signal.hpp>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "floor.h"
#include "harness.h"

namespace {

using bridge::BridgeModule;
using bridge::BridgeType;
using bridge::Control;
using bridge::Zorvix;

using Payload = std::array<std::uint64_t, 8>;
using Signal = boost::signals2::signal<void(const std::any&)>;
using Context = boost::asio::io_context;

Zorvix& zorvix = Zorvix::GetInstance();
// One for the process like the bridge, so that the tables of both have the same history.
Floor bare;

constexpr int kRounds = 150;
constexpr std::size_t kBatch = 64;
constexpr char kSignals2[] = "Boost.Signals2";
constexpr char kAsio[] = "Boost.Asio";

std::shared_ptr<const Control> MakeControl(std::string name, BridgeModule module, BridgeType type) {
  return std::make_shared<const Control>(Control{std::move(name), module, type});
}

void Receive(const std::any& message) {
  benchmark::DoNotOptimize(std::any_cast<const Payload&>(message)[0]);
}

void Subscribe(std::shared_ptr<const Control> control, const bridge::SubscriberCallback& callback) {
  zorvix.RegisterSubscriber(control, callback);
}

void Unsubscribe(std::shared_ptr<const Control> control,
                 const bridge::SubscriberCallback& callback) {
  zorvix.UnregisterSubscriber(control, reinterpret_cast<unsigned long>(callback.get()));
}

// One topic with the same subscribers on the bridge, on the floor and as a signal.
class Topic {
 public:
  template <typename Callable>
  Topic(const char* name, BridgeType type, std::size_t subscribers, Callable callable)
      : control(MakeControl(name, BridgeModule::Topic, type)),
        bare_control(MakeControl(name, BridgeModule::Topic, type)) {
    for (std::size_t i = 0; i < subscribers; ++i) {
      callbacks.push_back(std::make_shared<std::function<void(const std::any&)>>(callable));
      Subscribe(control, callbacks.back());
      bare.Subscribe(bare_control, callbacks.back());
      signal.connect(callable);
    }
  }
  explicit Topic(const char* name, std::size_t subscribers = 1)
      : Topic(name, BridgeType::Sync, subscribers, Receive) {}
  Topic(const Topic&) = delete;
  Topic& operator=(const Topic&) = delete;
  ~Topic() {
    for (const auto& callback : callbacks) Unsubscribe(control, callback);
    zorvix.UnregisterPublisher(control);
    bare.Unsubscribe(bare_control, nullptr);  // the last to leave takes all along
  }

  auto PublishOnBridge() {
    return [this] { zorvix.Publish(control, std::move(message)); };
  }
  auto PublishOnFloor() {
    return [this] { bare.Publish(bare_control, message); };
  }
  auto Emit() {
    return [this] { signal(message); };
  }
  auto PostOnBridge() {
    return [this] { zorvix.Publish(control, Payload{}); };
  }
  auto PostOnFloor() {
    return [this] { bare.Post(bare_control, Payload{}); };
  }
  // A closure of the same three fields as the bridge's.
  auto PostOn(Context& context) {
    return [this, &context] {
      boost::asio::post(context, [name = real_name, callback = callbacks.front(),
                                  payload = std::any(Payload{})] { (*callback)(payload); });
    };
  }

  std::shared_ptr<const Control> control;
  std::shared_ptr<const Control> bare_control;
  const std::string real_name = Zorvix::GetRealName(control);
  std::vector<bridge::SubscriberCallback> callbacks;
  Signal signal;
  std::any message = Payload{};  // left with the caller by every synchronous publication
};

void Publish(benchmark::State& state, std::size_t subscribers) {
  Topic topic("odometry", subscribers);
  Compare(state, kSignals2, OneThread(topic.PublishOnBridge()), OneThread(topic.Emit()),
          OneThread(topic.PublishOnFloor()));
}

void PublishNamed(benchmark::State& state, const char* name, const char* reference_name,
                  const char* peer) {
  Topic topic(name);
  Topic reference(reference_name);
  Compare(state, peer, OneThread(topic.PublishOnBridge()), OneThread(reference.PublishOnBridge()),
          OneThread(topic.PublishOnFloor()));
}

void PublishAmongMany(benchmark::State& state) {
  Topic topic("odometry");
  const auto& callback = topic.callbacks.front();
  const auto among_others = [](const Measure& measure, auto subscribe, auto unsubscribe) {
    return [=] {
      std::vector<std::shared_ptr<const Control>> others;
      for (int i = 0; i < 20'000; ++i) {
        others.push_back(
            MakeControl("topic" + std::to_string(i), BridgeModule::Topic, BridgeType::Sync));
        subscribe(others.back());
      }
      measure();  // the caches are cold now
      const Sample sample = measure();
      for (auto& control : others) unsubscribe(control);
      return sample;
    };
  };
  Compare(state, "the same alone",
          among_others(
              OneThread(topic.PublishOnBridge()),
              [&](auto& control) { zorvix.RegisterSubscriber(control, callback); },
              [](auto& control) { zorvix.UnregisterSubscriber(control, 0); }),
          OneThread(topic.PublishOnBridge()),
          among_others(
              OneThread(topic.PublishOnFloor()),
              [&](auto& control) { bare.Subscribe(control, callback); },
              [](auto& control) { bare.Unsubscribe(control, nullptr); }));
}

void PublishOnTwoThreads(benchmark::State& state, bool one_topic) {
  Topic topic("odometry");
  Topic other("distance");
  Topic& second = one_topic ? topic : other;
  Compare(state, kSignals2, TwoThreads(topic.PublishOnBridge(), second.PublishOnBridge()),
          TwoThreads(topic.Emit(), second.Emit()),
          TwoThreads(topic.PublishOnFloor(), second.PublishOnFloor()));
}

// Posts and drains in turns; `post` posts one task.
template <typename Post, typename Drain>
Measure PostAndDrain(Post post, Drain drain) {
  return Timed([post = std::move(post), drain = std::move(drain)](std::size_t n) {
    const auto start = Clock::now();
    for (std::size_t i = 0; i < n; i += kBatch) {
      for (std::size_t j = 0; j < kBatch; ++j) post();
      drain();
    }
    return NanosecondsSince(start);
  });
}

void PostAndDrainAll(benchmark::State& state) {
  Topic topic("odometry", BridgeType::Async, 1, Receive);
  Context context;
  const auto work = boost::asio::make_work_guard(context);
  Compare(state, kAsio, PostAndDrain(topic.PostOnBridge(), [] { zorvix.SpinOnce(); }),
          PostAndDrain(topic.PostOn(context), [&] { context.poll(); }),
          PostAndDrain(topic.PostOnFloor(), [&] {
            while (bare.Step()) {
            }
          }));
}

void PostAndDrainLogged(benchmark::State& state) {
  const PlatformLog log;
  PostAndDrainAll(state);
}

// Workers for the bridge, the floor and Asio. All but one's sleep while that one is measured.
class Workers {
 public:
  explicit Workers(std::size_t count) {
    bare.Start();
    threads_.emplace_back([count] { zorvix.Spin(count); });
    for (std::size_t i = 0; i < count; ++i) {
      threads_.emplace_back([] { bare.Work(); });
      threads_.emplace_back([this] { context.run(); });
    }
    while (!ZorvixIsSpin()) std::this_thread::yield();
  }
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;
  ~Workers() {
    zorvix.StopSpin();
    bare.Stop();
    context.stop();
    for (auto& thread : threads_) thread.join();
  }

  Context context;

 private:
  boost::asio::executor_work_guard<Context::executor_type> work_{context.get_executor()};
  std::vector<std::thread> threads_;
};

// Tasks that are posted and not done yet: 100 at most, so that the bridge's queue drops none.
class Window {
 public:
  void Enter() {
    while (outstanding_.fetch_add(1) >= 100) {
      outstanding_.fetch_sub(1);
      std::this_thread::yield();
    }
  }
  void Leave() { outstanding_.fetch_sub(1); }
  void WaitUntilEmpty() const {
    while (outstanding_ != 0) std::this_thread::yield();
  }

 private:
  std::atomic<int> outstanding_{0};
};

template <typename Post>
Measure Produce(std::size_t producers, Window& window, Post post) {
  return Timed([=, &window, post = std::move(post)](std::size_t n) {
    const auto produce = [&] {
      for (std::size_t i = 0; i < n / producers; ++i) {
        window.Enter();
        post();
      }
      window.WaitUntilEmpty();
    };
    if (producers == 2) return Together(produce, produce);
    const auto start = Clock::now();
    produce();
    return NanosecondsSince(start);
  });
}

void PostAcrossThreads(benchmark::State& state, std::size_t producers, std::size_t worker_count) {
  Window window;
  Topic topic("odometry", BridgeType::Async, 1, [&window](const std::any& message) {
    Receive(message);
    window.Leave();
  });
  Workers workers(worker_count);
  Compare(state, kAsio, Produce(producers, window, topic.PostOnBridge()),
          Produce(producers, window, topic.PostOn(workers.context)),
          Produce(producers, window, topic.PostOnFloor()));
}

// The given quantile of the times from a post to an idle worker until the callback runs, which
// stores the time of that.
template <typename Post>
Measure Wake(double quantile, std::atomic<Clock::rep>& arrival, Post post) {
  return [=, &arrival] {
    constexpr std::size_t kWakes = 200;
    constexpr std::chrono::microseconds kUntilIdle{60};
    std::array<Clock::rep, kWakes> times{};
    for (auto& time : times) {
      const auto start = Clock::now();
      while (Clock::now() - start < kUntilIdle) {
      }
      arrival = 0;
      const auto sent = Clock::now();
      post();
      while (arrival == 0) {
      }
      time = arrival - sent.time_since_epoch().count();
    }
    const auto place = times.begin() + static_cast<std::ptrdiff_t>(quantile * kWakes);
    std::nth_element(times.begin(), place, times.end());
    return Sample{static_cast<double>(*place), std::numeric_limits<double>::quiet_NaN()};
  };
}

void WakeWorker(benchmark::State& state, double quantile) {
  std::atomic<Clock::rep> arrival{0};
  Topic topic("odometry", BridgeType::Async, 1,
              [&arrival](const std::any&) { arrival = Clock::now().time_since_epoch().count(); });
  Workers workers(1);
  Compare(state, kAsio, Wake(quantile, arrival, topic.PostOnBridge()),
          Wake(quantile, arrival, topic.PostOn(workers.context)),
          Wake(quantile, arrival, topic.PostOnFloor()));
}

void Call(benchmark::State& state) {
  const auto serve = [](const std::any& request, std::any& response) {
    response = std::any_cast<const Payload&>(request)[0];
  };
  const std::any request = Payload{};
  const auto call = [&request](const auto& server) {
    std::any response;
    server(request, response);
    benchmark::DoNotOptimize(std::any_cast<std::uint64_t>(response));
  };
  auto control = MakeControl("odometry", BridgeModule::Service, BridgeType::Sync);
  const auto server = std::make_shared<std::function<void(const std::any&, std::any&)>>(serve);
  auto registered = control;
  zorvix.RegisterServer(registered, server);
  bare.Serve(control, server);
  boost::signals2::signal<void(const std::any&, std::any&)> signal;
  signal.connect(serve);
  Compare(state, kSignals2, OneThread([&] { zorvix.Call(control, call); }),
          OneThread([&] { call(signal); }), OneThread([&] { bare.Call(control, call); }));
  zorvix.UnregisterServer(registered, 0);
  zorvix.UnregisterClient(control);
}

void Register(benchmark::State& state, std::size_t subscribers) {
  Topic topic("odometry", subscribers);
  const auto callback = std::make_shared<std::function<void(const std::any&)>>(Receive);
  Compare(state, kSignals2, OneThread([&] {
            Subscribe(topic.control, callback);
            Unsubscribe(topic.control, callback);
          }),
          OneThread([&] { topic.signal.connect(Receive).disconnect(); }), OneThread([&] {
            auto control = topic.bare_control;
            bare.Subscribe(control, callback);
            bare.Unsubscribe(control, callback.get());
          }));
}

template <typename Function, typename... Arguments>
void Add(const char* name, int rounds, Function function, Arguments... arguments) {
  benchmark::RegisterBenchmark(name, function, arguments...)->Iterations(rounds)->Repetitions(5);
}

const bool added = [] {
  Add("Sync publish to 1 subscriber", kRounds, Publish, 1);
  Add("Sync publish to 4", kRounds, Publish, 4);
  Add("Sync publish to 16", kRounds, Publish, 16);
  Add("Sync publish to 64", kRounds, Publish, 64);
  Add("Sync publish to 1, name of 8 characters", kRounds, PublishNamed, "odometry", "odom",
      "the same, 4 characters");
  Add("Sync publish to 1, name of 60 characters", kRounds, PublishNamed,
      "vehicle/chassis/rear_axle/left_wheel/wheel_encoder/odometry/", "odometry",
      "the same, 8 characters");
  Add("Sync publish to 1 among 20,000 topics", 10, PublishAmongMany);
  Add("Sync publish to 1 on 2 threads, one topic each", kRounds, PublishOnTwoThreads, false);
  Add("Sync publish to 1 on 2 threads, same topic", kRounds, PublishOnTwoThreads, true);
  Add("Sync call", kRounds, Call);
  Add("Async publish and drain, 64 at a time", kRounds, PostAndDrainAll);
  Add("Async publish and drain, platform's log", kRounds, PostAndDrainLogged);
  Add("Async across threads, 1 producer", kRounds, PostAcrossThreads, 1, 1);
  Add("Async across threads, 2 producers", kRounds, PostAcrossThreads, 2, 1);
  Add("Async across threads, 1 producer, 2 workers", kRounds, PostAcrossThreads, 1, 2);
  Add("Async publish until an idle worker calls, p50", 10, WakeWorker, 0.5);
  Add("Async publish until an idle worker calls, p99", 10, WakeWorker, 0.99);
  Add("Register and unregister 1 subscriber, 1 on the topic", kRounds, Register, 1);
  Add("Register and unregister 1 subscriber, 1,000 on the topic", kRounds, Register, 1000);
  return true;
}();

}  // namespace
