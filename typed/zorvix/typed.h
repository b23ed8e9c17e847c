// Handles with types: endpoints of the bridge as objects that live as long as their registration.
//
//   const zorvix::Topic<Sample> kSamples{"samples"};  // in a header that modules share
//   zorvix::Subscriber print(kSamples, [](const Sample& sample) { ... });
//   zorvix::Publisher(kSamples).Publish({1, 0.5});
//
// Modules with and without handles meet under the same names. A handle can be moved, by one thread
// at a time; what it was moved from does nothing. The last participant of a name takes it along. A
// constructor that throws leaves nothing behind; a destructor that cannot allocate ends the
// process.
//
// When the destructor of a Subscriber or Server returns, its callable runs on no other thread and
// never runs again, whatever is under way or queued. So it waits for runs on other threads, with a
// WARN after a second, and deadlocks by nature with a lock held for which the callable waits, and
// when two callables destroy each other's handles. A callable may destroy its own handle, may be
// entered by many threads, and may run before the constructor of its handle has returned. One that
// suspends a fiber must not resume on another thread: runs are told apart by their threads.
//
// The bridge dies at process exit, before every static object that was there when it was first
// used. Handles must go before: a static one inside a function that has used the bridge does, a
// global std::optional that main fills does not unless main empties it.
#ifndef ZORVIX_TYPED_H_
#define ZORVIX_TYPED_H_

#include <zorvix/inbox.h>

#include <future>
#include <stdexcept>
#include <type_traits>

namespace zorvix {

// Values that travel in a std::any.
template <typename Value>
constexpr bool kTravels = std::is_same_v<Value, std::decay_t<Value>>&&
    std::is_copy_constructible_v<Value>&& std::is_move_constructible_v<Value>;

// What modules agree on, in a header that they share.
template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
struct Topic {
  static_assert(kTravels<Message>, "a message must be a value that can be copied and moved");
  ZORVIX_HIDDEN ~Topic() = default;
  std::string name;
};
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
struct Service {
  static_assert(kTravels<Request> && kTravels<Response>,
                "requests and responses must be values that can be copied and moved");
  ZORVIX_HIDDEN ~Service() = default;
  std::string name;
};

// When a subscriber to a Sync topic runs. Queued: when the bridge's queue is drained, in order and
// one message at a time with any number of workers. All that waits for it shares one task; if a
// full queue loses that, it goes on waiting until the next message. For other topics both are the
// same.
enum class Delivery { AtOnce, Queued };

namespace detail ZORVIX_HIDDEN {

inline Endpoint Describe(const std::string& topic, bridge::BridgeType type) {
  return std::make_shared<bridge::Control>(
      bridge::Control{topic, bridge::BridgeModule::Topic, type});
}

// Allocates all before it registers; what a failing registration has entered goes with `end`.
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

// Keeps one task in the bridge's queue while anything waits in its room. The task runs from a topic
// of its own, named by the address that this occupies until it has left that name.
struct Poster {
  explicit Poster(const std::string& topic)
      : end(Describe(topic + "/queued/" + std::to_string(reinterpret_cast<std::uintptr_t>(this)),
                     bridge::BridgeType::Async)) {}

  void PostIfReady() {
    std::uint64_t none = 0, number = ++count;
    if (!room.ready() || !posted->compare_exchange_strong(none, number)) return;
    // When the task has gone, run or lost: perhaps under a lock of the bridge, so no more than
    // this.
    const auto forget = [posted = posted, number](void*) mutable {
      posted->compare_exchange_strong(number, 0);
    };
    Bridge().Publish(end.control, std::shared_ptr<void>(nullptr, forget));
  }

  // The task. It counts as posted while it drains, when nobody would post another.
  void Drain() {
    room.Drain();
    *posted = 0;
    PostIfReady();
  }

  Room room;
  std::atomic<std::uint64_t> count{0};
  const std::shared_ptr<std::atomic<std::uint64_t>> posted =
      std::make_shared<std::atomic<std::uint64_t>>(0);  // the number of the task
  End end;
};

// A subscription that waits in a room.
template <typename Message>
struct Boxed {
  template <typename Callable>
  Boxed(const std::string& topic, Callable callable, std::shared_ptr<Room> room, Keep keep,
        std::shared_ptr<Poster> poster = nullptr)
      : lodging(std::move(room), Receive<Message>(topic, std::move(callable)), keep),
        pushing(topic, bridge::BridgeType::Sync,
                Receive<Message>(topic, [room = lodging.room, line = lodging.line,
                                         poster = std::move(poster)](const Message& message) {
                  room->Push(line, std::any(std::in_place_type<Message>, message));
                  if (poster) poster->PostIfReady();
                })) {}
  const Lodging lodging;
  const Subscription pushing;  // goes first: nothing is pushed any more, then nothing runs any more
};

template <typename Message>
struct Queued {
  template <typename Callable>
  Queued(const std::string& topic, Callable callable, Keep keep)
      : poster(std::make_shared<Poster>(topic)),
        draining(poster->end.control->name, bridge::BridgeType::Async,
                 Receive<std::shared_ptr<void>>(
                     topic, [poster = poster](const std::shared_ptr<void>&) { poster->Drain(); })),
        boxed(topic, std::move(callable), {poster, &poster->room}, keep, poster) {}
  const std::shared_ptr<Poster> poster;
  Subscription draining;
  Boxed<Message> boxed;
};

template <typename Message, typename Callable>
std::shared_ptr<void> Subscribe(const std::string& topic, bridge::BridgeType type,
                                Callable callable, Delivery delivery, Keep keep) {
  if (type == bridge::BridgeType::Sync && delivery == Delivery::Queued) {
    return std::make_shared<Queued<Message>>(topic, std::move(callable), keep);
  }
  return std::make_shared<Subscription>(topic, type, Receive<Message>(topic, std::move(callable)));
}

using ServerFunction = std::function<void(const std::any&, std::any&)>;

// Who serves under a name. All participants of the name hold the control that one of them made, and
// find this in its deleter: so a server that leaves knows whether another has taken over.
struct Seat {
  std::mutex mutex;
  const void* server ZORVIX_GUARDED_BY(mutex) = nullptr;
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
    const std::lock_guard lock(seat->mutex);
    Bridge().RegisterServer(end.control, callback);
    seat->server = callback.get();
  }
  ~Serving() {
    {
      const std::lock_guard lock(seat->mutex);
      // Nobody else shares the callback when the bridge has it no more and no call is under way.
      const bool serves = seat->server == callback.get() && callback.use_count() > 1;
      serves ? Bridge().UnregisterServer(end.control, 0) : Bridge().UnregisterClient(end.control);
    }
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
  auto answer = [callable = std::move(callable)](const Request& request,
                                                 std::any* response) mutable {
    const auto ask = [&]() -> Response { return std::invoke(callable, request); };
    response->emplace<Response>(ask());
  };
  const auto gated = std::make_shared<Gated<decltype(answer)>>(service, std::move(answer));
  return std::make_shared<Serving>(service, type, gated,
                                   [gated](const std::any& request, std::any& response) {
                                     (*gated)(std::any_cast<const Request&>(request), &response);
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

// Its answer is none when the last who could give one lets go.
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

}  // namespace ZORVIX_HIDDEN

template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
class [[nodiscard]] Publisher {
 public:
  ZORVIX_HIDDEN explicit Publisher(const Topic<Message, kType>& topic)
      : end_(detail::Join(detail::Describe(topic.name, kType))) {}
  ZORVIX_MOVE_ONLY(Publisher);

  // Returns whether there was a subscriber. A Sync topic blocks for as long as its subscribers do;
  // of the subscribers of a queued one only the first gets the message.
  ZORVIX_HIDDEN bool Publish(Message message) const {
    std::any any(std::in_place_type<Message>, std::move(message));
    return end_ && detail::Bridge().Publish(end_, std::move(any));
  }

 private:
  detail::Endpoint end_;
};

template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
class [[nodiscard]] Subscriber {
 public:
  // Runs callable(const Message&) for each message but those of another type, which are logged.
  // `keep` is for what is queued; an inbox is for Sync topics only.
  template <typename Callable>
  ZORVIX_INLINED Subscriber(const Topic<Message, kType>& topic, Callable callable,
                            Delivery delivery = Delivery::AtOnce, Keep keep = {})
      : registration_(
            detail::Subscribe<Message>(topic.name, kType, std::move(callable), delivery, keep)) {
    static_assert(std::is_invocable_v<Callable&, const Message&>,
                  "a subscriber is called with a const Message&");
  }
  template <typename Callable>
  ZORVIX_INLINED Subscriber(const Topic<Message, kType>& topic, Callable callable, Inbox& inbox,
                            Keep keep = {})
      : registration_(std::make_shared<detail::Boxed<Message>>(
            topic.name, std::move(callable), std::static_pointer_cast<detail::Box>(inbox.box_),
            keep)) {
    static_assert(kType == bridge::BridgeType::Sync, "only Sync topics reach an inbox");
    static_assert(std::is_invocable_v<Callable&, const Message&>,
                  "a subscriber is called with a const Message&");
  }
  ZORVIX_MOVE_ONLY(Subscriber);

 private:
  std::shared_ptr<void> registration_;
};

// A service has one server; a later one takes over, with a line in the log. Handles of one name may
// come and go in any order: none takes another along. Beside a server without a handle one does, if
// that took over while calls to the handle's were queued or under way; and so it is among handles
// where a participant without one was the first to have the name.
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class [[nodiscard]] Server {
 public:
  // Answers each call with callable(const Request&).
  template <typename Callable>
  ZORVIX_INLINED Server(const Service<Request, Response, kType>& service, Callable callable)
      : registration_(detail::Serve<Request, Response>(service.name, kType, std::move(callable))) {
    static_assert(std::is_invocable_r_v<Response, Callable&, const Request&>,
                  "a server is called with a const Request& and returns a Response");
  }
  ZORVIX_MOVE_ONLY(Server);

 private:
  std::shared_ptr<void> registration_;
};

template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class [[nodiscard]] Client {
 public:
  ZORVIX_HIDDEN explicit Client(const Service<Request, Response, kType>& service)
      : end_(detail::Join(detail::DescribeService(service.name, kType))) {}
  ZORVIX_MOVE_ONLY(Client);

  // Returns the answer as a std::optional<Response>: none when there is no server, or it throws or
  // answers with another type. Of a queued service returns a std::future of it, which becomes ready
  // in any case while the queue is drained; none also when the queue loses the call, or the server
  // goes before its turn. A task that waits for it needs another worker that is free.
  ZORVIX_HIDDEN auto Call(Request request) const {
    std::any any(std::in_place_type<Request>, std::move(request));
    if constexpr (kType == bridge::BridgeType::Sync) {
      return detail::Call<Response>(end_, any);
    } else {
      return detail::CallLater<Response>(end_, std::move(any));
    }
  }

 private:
  detail::Endpoint end_;
};

// Worker threads that drain the queue. One stop ends all workers of the process: those of every
// object of this class and of every Spin. A thread that cannot be started ends the process.
class [[nodiscard]] Workers {
 public:
  ZORVIX_HIDDEN explicit Workers(unsigned long count) {
    detail::Bridge();  // older than a static object of this class, so it dies later
    left_ = std::async(std::launch::async, [=]() noexcept { detail::Bridge().Spin(count); });
  }
  // Blocks until the workers have left, however early it comes and however long a task takes. Those
  // that have begun leave when they see the queue empty: never, while tasks post tasks or come
  // faster than they run, so end first what posts. Must not be called by a task on one of them.
  ZORVIX_HIDDEN ~Workers() {
    // A stop may come before Spin has begun, and gives up on a long task.
    for (std::chrono::milliseconds pause(1); left_.wait_for(pause) != std::future_status::ready;
         pause *= 2) {
      detail::Bridge().StopSpin();
    }
  }
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

 private:
  std::future<void> left_;
};

}  // namespace zorvix

#endif  // ZORVIX_TYPED_H_
