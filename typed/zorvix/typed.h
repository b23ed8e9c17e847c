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

#include <zorvix/endpoint.h>
#include <zorvix/inbox.h>

namespace zorvix {

// What modules agree on, in a header that they share. Messages, requests and responses are values
// that can be copied and moved.
template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
struct Topic {
  static_assert(detail::kTravels<Message>, "a message must be a value, to be copied and moved");
  ZORVIX_HIDDEN ~Topic() = default;
  std::string name;
};
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
struct Service {
  static_assert(detail::kTravels<Request>, "a request must be a value, to be copied and moved");
  static_assert(detail::kTravels<Response>, "a response must be a value, to be copied and moved");
  ZORVIX_HIDDEN ~Service() = default;
  std::string name;
};

// When a subscriber to a Sync topic runs. Queued: when the bridge's queue is drained, in order and
// one message at a time with any number of workers. All that waits for it shares one task; if a
// full queue loses that, it goes on waiting until the next message. For other topics both are the
// same.
enum class Delivery { Direct, Queued };

template <typename Message, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Publisher {
 public:
  [[nodiscard]] ZORVIX_HIDDEN explicit Publisher(const Topic<Message, kType>& topic)
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
class Subscriber {
 public:
  // Runs callable(const Message&) for each message but those of another type, which are logged.
  // `keep` is for what is queued.
  template <typename Callable>
  [[nodiscard]] ZORVIX_INLINED Subscriber(const Topic<Message, kType>& topic, Callable callable,
                                          Delivery delivery = Delivery::Direct,
                                          KeepLast keep = {}) {
    static_assert(kCalls<Callable>, "a subscriber is called with a const Message&");
    if (kType == bridge::BridgeType::Sync && delivery == Delivery::Queued) {
      registration_ = std::make_shared<detail::Queued<Message>>(
          topic.name, detail::MakeLine<Message>(topic.name, std::move(callable), keep));
    } else {
      registration_ = std::make_shared<detail::Subscription>(
          topic.name, kType, detail::Receive<Message>(topic.name, std::move(callable)));
    }
  }
  // From the inbox.
  template <typename Callable>
  [[nodiscard]] ZORVIX_INLINED Subscriber(const Topic<Message, kType>& topic, Callable callable,
                                          Inbox& inbox, KeepLast keep = {})
      : registration_(std::make_shared<detail::Boxed<Message>>(
            std::static_pointer_cast<detail::Box>(inbox.box_), topic.name,
            detail::MakeLine<Message>(topic.name, std::move(callable), keep))) {
    static_assert(kType == bridge::BridgeType::Sync, "only what comes at once can go to an inbox");
    static_assert(kCalls<Callable>, "a subscriber is called with a const Message&");
  }
  ZORVIX_MOVE_ONLY(Subscriber);

 private:
  template <typename Callable>
  static constexpr bool kCalls = std::is_invocable_v<Callable&, const Message&>;
  std::shared_ptr<void> registration_;
};

// A service has one server; a later one takes over, with a line in the log. Handles of one name
// come and go in any order, and none takes another along. Beside a server without a handle one
// does, if that took over while calls to the handle's were queued or under way; so it is among
// handles, too, where a participant without one was the first under the name.
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Server {
 public:
  // Answers each call with callable(const Request&).
  template <typename Callable>
  [[nodiscard]] ZORVIX_INLINED Server(const Service<Request, Response, kType>& service,
                                      Callable callable)
      : registration_(detail::Serve<Request, Response>(service.name, kType, std::move(callable))) {
    static_assert(std::is_invocable_r_v<Response, Callable&, const Request&>,
                  "a server is called with a const Request& and returns a Response");
  }
  ZORVIX_MOVE_ONLY(Server);

 private:
  std::shared_ptr<void> registration_;
};

template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Client {
 public:
  [[nodiscard]] ZORVIX_HIDDEN explicit Client(const Service<Request, Response, kType>& service)
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
class Workers {
 public:
  [[nodiscard]] ZORVIX_HIDDEN explicit Workers(unsigned long count) {
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
