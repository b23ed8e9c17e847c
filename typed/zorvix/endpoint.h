// Registrations with the bridge that end with their object. Not for users: handles are made of it.
#ifndef ZORVIX_ENDPOINT_H_
#define ZORVIX_ENDPOINT_H_

#include <zorvix/room.h>

#include <future>
#include <thread>
#include <type_traits>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

template <typename Value>
constexpr bool kTravels = std::is_same_v<Value, std::decay_t<Value>>&&
    std::is_copy_constructible_v<Value>&& std::is_move_constructible_v<Value>;

using Endpoint = std::shared_ptr<const bridge::Control>;

inline bridge::Zorvix& Bridge() { return bridge::Zorvix::GetInstance(); }

inline Endpoint Describe(const std::string& topic, bridge::BridgeType type) {
  return std::make_shared<bridge::Control>(
      bridge::Control{topic, bridge::BridgeModule::Topic, type});
}

// Joins a name as publisher or client, and leaves it unless `control` was emptied meanwhile. Others
// allocate all they need before they register under it: so a failure leaves nothing behind.
struct End {
  explicit End(Endpoint described)
      : control(std::move(described)),
        topic(control->bridge_module == bridge::BridgeModule::Topic) {
    topic ? Bridge().RegisterPublisher(control) : Bridge().RegisterClient(control);
  }
  ~End() {
    if (!control) return;
    topic ? Bridge().UnregisterPublisher(control) : Bridge().UnregisterClient(control);
  }
  End(const End&) = delete;
  Endpoint control;
  const bool topic;
};

// Returns the control of an end that the pointer shares.
inline Endpoint Join(Endpoint described) {
  const auto end = std::make_shared<End>(std::move(described));
  return {end, end->control.get()};
}

struct Subscription {
  Subscription(const std::string& topic, bridge::BridgeType type, Receiver receiver)
      : gate(std::move(receiver.gate)),
        callback(
            std::make_shared<std::function<void(const std::any&)>>(std::move(receiver.function))),
        end(Describe(topic, type)) {
    Bridge().RegisterSubscriber(end.control, callback);
  }
  ~Subscription() {
    Bridge().UnregisterSubscriber(end.control, reinterpret_cast<unsigned long>(callback.get()));
    gate->Close();
  }
  const std::shared_ptr<Gate> gate;
  const bridge::SubscriberCallback callback;  // kept, for nobody else shall get its address
  End end;
};

// A subscription that waits in a room. Nothing is pushed any more when the lodging ends.
template <typename Message>
struct Boxed {
  Boxed(std::shared_ptr<Room> room, const std::string& topic, std::shared_ptr<Line> line)
      : lodging(std::move(room), std::move(line)),
        pushing(topic, bridge::BridgeType::Sync,
                Receive<Message>(topic, Push{lodging.room, lodging.line})) {}
  struct Push {
    void operator()(const Message& message) const { room->Push(line, Pack(message)); }
    std::shared_ptr<Room> room;
    std::shared_ptr<Line> line;
  };
  const Lodging lodging;
  const Subscription pushing;
};

// Keeps one task in the bridge's queue while anything waits. The task runs from a topic of its own,
// named by the address that this occupies until it has left that name.
struct QueueRoom final : Room {
  explicit QueueRoom(const std::string& topic)
      : end(Describe(topic + "/queued/" + std::to_string(reinterpret_cast<std::uintptr_t>(this)),
                     bridge::BridgeType::Async)) {}
  // The task counts as posted while it drains, when no other is wanted. Then it lets who publishes
  // a burst get on with it, or each message would wake a worker.
  void Settle(bool drained) override {
    if (drained) {
      std::this_thread::yield();
      *posted = 0;
    }
    std::uint64_t none = 0, number = ++count;
    if (!ready || !posted->compare_exchange_strong(none, number)) return;
    // When the task has gone, run or lost; perhaps under a lock of the bridge, so no more than
    // this.
    const auto forget = [posted = posted, number](void*) mutable {
      posted->compare_exchange_strong(number, 0);
    };
    Bridge().Publish(end.control, std::shared_ptr<void>(nullptr, forget));
  }
  std::atomic<std::uint64_t> count{0};
  const std::shared_ptr<std::atomic<std::uint64_t>> posted =
      std::make_shared<std::atomic<std::uint64_t>>(0);  // the number of the task
  End end;
};

template <typename Message>
struct Queued {
  Queued(const std::string& topic, std::shared_ptr<Line> line)
      : room(std::make_shared<QueueRoom>(topic)),
        draining(room->end.control->name, bridge::BridgeType::Async,
                 Receive<std::shared_ptr<void>>(topic, [room = room](auto&) { room->Drain(); })),
        boxed(room, topic, std::move(line)) {}
  const std::shared_ptr<QueueRoom> room;
  const Subscription draining;
  const Boxed<Message> boxed;
};

using ServerFunction = std::function<void(const std::any&, std::any&)>;

// Who serves under a name. All participants of the name hold the control that one of them made, and
// find this in its deleter: so a server that leaves knows whether another has taken over.
class Seat {
 public:
  void Take(Endpoint& control, const bridge::ServerCallback& callback) {
    const std::lock_guard lock(mutex_);
    Bridge().RegisterServer(control, callback);
    server_ = callback.get();
  }
  void Leave(Endpoint& control, const bridge::ServerCallback& callback) {
    const std::lock_guard lock(mutex_);
    // Nobody else shares the callback when the bridge has it no more and no call is under way.
    const bool serves = server_ == callback.get() && callback.use_count() > 1;
    serves ? Bridge().UnregisterServer(control, 0) : Bridge().UnregisterClient(control);
  }

 private:
  std::mutex mutex_;
  const void* server_ ZORVIX_GUARDED_BY(mutex_) = nullptr;
};
struct SeatKeeper {
  void operator()(const bridge::Control* control) const { delete control; }
  std::shared_ptr<Seat> seat = std::make_shared<Seat>();
};

inline Endpoint DescribeService(const std::string& name, bridge::BridgeType type) {
  SeatKeeper keeper;
  return {new bridge::Control{name, bridge::BridgeModule::Service, type}, std::move(keeper)};
}

struct Serving {
  Serving(const std::string& service, bridge::BridgeType type, std::shared_ptr<Gate> its,
          ServerFunction function)
      : gate(std::move(its)),
        callback(std::make_shared<ServerFunction>(std::move(function))),
        end(DescribeService(service, type)) {
    if (auto* const keeper = std::get_deleter<SeatKeeper>(end.control)) seat = keeper->seat;
    seat->Take(end.control, callback);
  }
  ~Serving() {
    seat->Leave(end.control, callback);
    gate->Close();
  }
  const std::shared_ptr<Gate> gate;
  const bridge::ServerCallback callback;
  End end;
  std::shared_ptr<Seat> seat = std::make_shared<Seat>();  // where the control's maker gave none
};

template <typename Request, typename Response, typename Callable>
std::shared_ptr<void> Serve(const std::string& service, bridge::BridgeType type,
                            Callable callable) {
  auto serve = [callable = std::move(callable)](const Request& request, std::any* answer) mutable {
    const auto ask = [&]() -> Response { return std::invoke(callable, request); };
    answer->emplace<Response>(ask());
  };
  const auto gated = std::make_shared<Gated<decltype(serve)>>(service, std::move(serve));
  return std::make_shared<Serving>(service, type, gated,
                                   [gated](const std::any& request, std::any& answer) {
                                     (*gated)(std::any_cast<const Request&>(request), &answer);
                                   });
}

// Asks, and hands on the answer if there is one. The bridge contains and logs a std::exception.
template <typename Response, typename Give>
void Ask(const ServerFunction& serve, const std::any& request, const Give& give) {
  try {
    std::any response;
    serve(request, response);
    if (response.has_value()) give(std::any_cast<Response&&>(std::move(response)));
  } catch (const std::exception&) {
    throw;
  } catch (...) {
    throw std::runtime_error("the server, or its answer, threw what is no std::exception");
  }
}

template <typename Response>
std::optional<Response> Call(const Endpoint& end, const std::any& request) {
  std::optional<Response> answer;
  const auto give = [&](Response&& given) { answer.emplace(std::move(given)); };
  if (end) Bridge().Call(end, [&](auto& serve) { Ask<Response>(serve, request, give); });
  return answer;
}

// The answer is none when the last who could give one lets go.
template <typename Response>
struct Pending {
  ~Pending() {
    if (!given) promise.set_value(std::nullopt);
  }
  std::promise<std::optional<Response>> promise;
  bool given = false;
};

template <typename Response>
std::future<std::optional<Response>> CallLater(const Endpoint& end, std::any request) {
  const auto pending = std::make_shared<Pending<Response>>();
  auto answer = pending->promise.get_future();
  auto ask = [pending, request = std::move(request)](auto& serve) {
    Ask<Response>(serve, request, [&](Response&& given) {
      pending->promise.set_value(std::move(given));
      pending->given = true;
    });
  };
  if (end) Bridge().Call(end, std::move(ask));
  return answer;
}

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_ENDPOINT_H_
