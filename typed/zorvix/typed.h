// Handles with types: endpoints of the bridge as objects that live as long as their registration.
//
//   const zorvix::Topic<Sample> kSamples{"samples"};  // in a header that modules share
//   zorvix::Subscriber print(kSamples, [](const Sample& sample) { ... });
//   zorvix::Publisher(kSamples).Publish({1, 0.5});
//
// Modules with and without handles meet under the same names. A handle can be moved, by one thread
// at a time; what it was moved from does nothing. The last participant of a name takes it along.
//
// When the destructor of a Subscriber or Server returns, its callable runs on no other thread and
// never runs again, whatever is under way or queued. So it waits for runs on other threads, and
// deadlocks by nature with a lock held for which the callable waits, and when two callables destroy
// each other's handles. A callable may destroy its own handle, and may be entered by many threads.
#ifndef ZORVIX_TYPED_H_
#define ZORVIX_TYPED_H_

#include <zorvix/zorvix.h>

#include <chrono>
#include <future>
#include <optional>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>

namespace zorvix {

// What modules agree on, in a header that they share.
template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
struct Topic {
  static_assert(std::is_copy_constructible_v<Message>,
                "a message that cannot be copied cannot travel in a std::any");
  std::string name;
};
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
struct Service {
  static_assert(std::is_copy_constructible_v<Request> && std::is_copy_constructible_v<Response>,
                "a request or response that cannot be copied cannot travel in a std::any");
  std::string name;
};

// When a subscriber to a Sync topic runs. Queued copies each message to the queue for this one: it
// gets all that a full queue does not lose, in the order in which they are taken. A topic of
// std::shared_ptr<const T> makes the copy cheap. Changes nothing for topics of other types.
enum class Delivery { AtOnce, Queued };

namespace detail {

using Endpoint = std::shared_ptr<const bridge::Control>;
using End = std::unique_ptr<Endpoint, void (*)(Endpoint*)>;
using Registration = std::unique_ptr<void, std::function<void(void*)>>;  // ends in its deleter
using ServerFunction = std::function<void(const std::any&, std::any&)>;

inline bridge::Zorvix& Bridge() { return bridge::Zorvix::GetInstance(); }

inline Endpoint Describe(std::string name, bridge::BridgeModule module, bridge::BridgeType type) {
  return std::make_shared<bridge::Control>(bridge::Control{std::move(name), module, type});
}

// Joins as publisher or client until the end is deleted.
inline End Join(Endpoint control) {
  const bool topic = control->bridge_module == bridge::BridgeModule::Topic;
  topic ? Bridge().RegisterPublisher(control) : Bridge().RegisterClient(control);
  return {new Endpoint(std::move(control)), [](Endpoint* end) {
            const bool left = (*end)->bridge_module == bridge::BridgeModule::Topic;
            left ? Bridge().UnregisterPublisher(*end) : Bridge().UnregisterClient(*end);
            delete end;
          }};
}

// One run of a callable, on the stack of its thread and linked to the runs around it.
struct Run {
  static constexpr std::uint32_t kClosed = 1u << 31;
  explicit Run(std::atomic<std::uint32_t>& gate)
      : runs(gate), around(std::exchange(innermost, this)), open(runs++ < kClosed) {}
  ~Run() {
    innermost = around;
    --runs;
  }
  std::atomic<std::uint32_t>& runs;
  const Run* const around;
  const bool open;
  // Hidden, so that each module has its own and can be unloaded.
  __attribute__((visibility("hidden"))) static inline thread_local const Run* innermost = nullptr;
};

// A callable that runs until it is closed. A run costs two atomic operations and no lock.
template <typename Callable>
struct Gated {
  explicit Gated(Callable function) : callable(std::move(function)) {}
  // Lets no run begin and waits for those on other threads. What the callable owns goes here, under
  // no lock of the bridge, though queued tasks may share the rest for longer.
  void Close() {
    std::uint32_t own = 0;
    for (auto* run = Run::innermost; run != nullptr; run = run->around) own += &run->runs == &runs;
    runs += Run::kClosed;
    while (runs != Run::kClosed + own) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (own == 0) callable.reset();
  }
  std::optional<Callable> callable;
  std::atomic<std::uint32_t> runs{0};  // and kClosed
};

template <typename Message, typename Callable>
Registration Subscribe(const std::string& name, bridge::BridgeType type, Callable function) {
  auto end = Describe(name, bridge::BridgeModule::Topic, type);
  const auto gated = std::make_shared<Gated<Callable>>(std::move(function));
  const auto callback =
      std::make_shared<std::function<void(const std::any&)>>([gated](const std::any& any) {
        if (!any.has_value()) return;  // what further subscribers of a queued topic get
        const auto& message = std::any_cast<const Message&>(any);
        if (const Run run(gated->runs); run.open) (*gated->callable)(message);
      });
  Bridge().RegisterSubscriber(end, callback);
  // Keeps the callback, too, since its address is what it is unregistered by.
  return {gated.get(), [gated, callback, end = std::move(end)](void*) mutable {
            Bridge().UnregisterSubscriber(end, reinterpret_cast<unsigned long>(callback.get()));
            gated->Close();
          }};
}

// The answer of a queued call, ready when the last who could give it lets go.
template <typename Response>
struct Pending {
  ~Pending() { promise.set_value(std::move(answer)); }
  std::promise<std::optional<Response>> promise;
  std::optional<Response> answer;
};

// Runs in the bridge's guard, which contains and logs what is a std::exception.
template <typename Response>
std::optional<Response> Ask(const ServerFunction& serve, const std::any& request) {
  std::any response;
  try {
    serve(request, response);
  } catch (const std::exception&) {
    throw;
  } catch (...) {
    throw std::runtime_error("the server threw what is no std::exception");
  }
  if (!response.has_value()) return std::nullopt;  // the server's handle is going
  return std::any_cast<Response>(std::move(response));
}

}  // namespace detail

template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Publisher {
 public:
  explicit Publisher(const Topic<Message, kType>& topic)
      : end_(detail::Join(detail::Describe(topic.name, bridge::BridgeModule::Topic, kType))) {}

  // Returns whether there was a subscriber. A Sync topic blocks for as long as its subscribers do;
  // of the subscribers of a queued one only the first gets the message.
  bool Publish(Message message) const {
    std::any any(std::in_place_type<Message>, std::move(message));
    return end_ && detail::Bridge().Publish(*end_, std::move(any));
  }

 private:
  detail::End end_;
};

template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Subscriber {
 public:
  // Runs callable(const Message&) for each message but those of another type, which are logged.
  template <typename Callable>
  Subscriber(const Topic<Message, kType>& topic, Callable callable,
             Delivery delivery = Delivery::AtOnce) {
    static_assert(std::is_invocable_v<Callable&, const Message&>,
                  "a subscriber is called with a const Message&");
    if (kType != bridge::BridgeType::Sync || delivery == Delivery::AtOnce) {
      registration_ = detail::Subscribe<Message>(topic.name, kType, std::move(callable));
      return;
    }
    // Forwards to a queued topic of its own, whose name has the address that it occupies.
    auto own = std::make_unique<Topic<Message, bridge::BridgeType::Async>>();
    own->name = topic.name + "/queued/" + std::to_string(std::uintptr_t(own.get()));
    auto run =
        detail::Subscribe<Message>(own->name, bridge::BridgeType::Async, std::move(callable));
    registration_ = detail::Subscribe<Message>(
        topic.name, kType,
        [run = std::move(run), queue = Publisher(*own),
         own = std::move(own)](const Message& message) { queue.Publish(message); });
  }

 private:
  detail::Registration registration_;
};

// A service has one server. A later one takes over, with a line in the log; while calls to the
// earlier one are queued or under way, its handle must go first, or it takes the later one along.
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Server {
 public:
  // Answers each call with callable(const Request&).
  template <typename Callable>
  Server(const Service<Request, Response, kType>& service, Callable callable) {
    static_assert(std::is_invocable_r_v<Response, Callable&, const Request&>,
                  "a server is called with a const Request& and returns a Response");
    const auto gated = std::make_shared<detail::Gated<Callable>>(std::move(callable));
    const auto callback = std::make_shared<detail::ServerFunction>(
        [gated](const std::any& request, std::any& response) {
          const auto& value = std::any_cast<const Request&>(request);
          const detail::Run run(gated->runs);
          if (run.open) response.emplace<Response>((*gated->callable)(value));
        });
    auto end = detail::Describe(service.name, bridge::BridgeModule::Service, kType);
    detail::Bridge().RegisterServer(end, callback);
    registration_ = detail::Registration(gated.get(), [gated, callback, end](void*) mutable {
      if (callback.use_count() > 1) {
        detail::Bridge().UnregisterServer(end, 0);
      } else {
        detail::Bridge().UnregisterClient(end);  // another took over, and only the name is left
      }
      gated->Close();
    });
  }

 private:
  detail::Registration registration_;
};

template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Client {
 public:
  explicit Client(const Service<Request, Response, kType>& service)
      : end_(detail::Join(detail::Describe(service.name, bridge::BridgeModule::Service, kType))) {}

  // Returns the answer as a std::optional<Response>: none when there is no server, or it throws or
  // answers with another type. Of a queued service returns a std::future of it, which becomes ready
  // in any case while the queue is drained; none also when the queue loses the call, or the server
  // goes before its turn. A task that waits for it needs another worker.
  auto Call(Request request) const {
    std::any any(std::in_place_type<Request>, std::move(request));
    if constexpr (kType == bridge::BridgeType::Sync) {
      std::optional<Response> answer;
      const auto ask = [&](auto& serve) { answer = detail::Ask<Response>(serve, any); };
      if (end_) detail::Bridge().Call(*end_, ask);
      return answer;
    } else {
      const auto pending = std::make_shared<detail::Pending<Response>>();
      auto answer = pending->promise.get_future();
      auto ask = [pending, any = std::move(any)](auto& serve) {
        pending->answer = detail::Ask<Response>(serve, any);
      };
      if (end_) detail::Bridge().Call(*end_, std::move(ask));
      return answer;
    }
  }

 private:
  detail::End end_;
};

// Worker threads that drain the queue. One stop ends all workers of the process: those of every
// object of this class and of every Spin.
class Workers {
 public:
  explicit Workers(unsigned long count)
      : left_(std::async(std::launch::async, [=]() noexcept { detail::Bridge().Spin(count); })) {}
  // Blocks until the workers have left, however early it comes and however long a task takes. Those
  // that have begun run what is queued first. Must not be called by a task on one of them.
  ~Workers() {
    // A stop may come before Spin has begun, and gives up on a long task.
    for (std::chrono::milliseconds pause(1); left_.wait_for(pause) != std::future_status::ready;
         pause *= 2) {
      detail::Bridge().StopSpin();
    }
  }

 private:
  std::future<void> left_;
};

}  // namespace zorvix

#endif  // ZORVIX_TYPED_H_
