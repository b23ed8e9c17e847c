// The client of a service.
//
//   const zorvix::Client title(kTitle);
//   const std::optional<std::string> answer = title.Call(7);
//
//   const zorvix::Client cover(kCover, inbox);
//   cover.Call(7, [this](std::optional<Cover> answer) { ... });
#ifndef ZORVIX_CLIENT_H_
#define ZORVIX_CLIENT_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/awaiting.h>
#include <zorvix/detail/library.h>
#include <zorvix/topic.h>

#include <any>
#include <chrono>
#include <future>
#include <optional>
#include <type_traits>
#include <utility>

namespace zorvix {

// An answer is a std::optional<Response>. It is std::nullopt if there is no server, or the server
// throws, answers with another type, or is destroyed before it has answered. A moved-from client
// makes no calls.
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Client {
 public:
  // With Delivery::Direct, for blocking calls only. With Delivery::Queued, the callables of its
  // calls are invoked one at a time where the bridge's queue is drained. When the client is
  // destroyed, callables that have not been invoked are destroyed; the destructor blocks while
  // another thread is inside one of them.
  [[nodiscard]] explicit Client(const Service<Request, Response, kType>& service,
                                Delivery delivery = Delivery::Direct)
      : state_(detail::MakeClient({service.name, kType}, {delivery})) {}

  // Invokes the callables of its calls in drains of the inbox. If the inbox is destroyed first,
  // callables that have not been invoked are destroyed with it or with the client.
  [[nodiscard]] Client(const Service<Request, Response, kType>& service, Inbox& inbox)
      : state_(detail::MakeClient({service.name, kType}, {Delivery::Queued, &inbox})) {
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync service can have an inbox");
  }

  // Blocks until the server has answered: on this thread, where the bridge's queue is drained, or
  // in a drain of the server's inbox. Returns the answer. If the server could only answer after the
  // calling callable has returned, it logs an ERROR and returns std::nullopt. Two threads that
  // drain inboxes and call servers of each other's block forever; so does a task of the queue that
  // calls a queued server, unless another worker is free.
  //
  // Async or SignleAsync service: returns a std::future of the answer. It becomes ready as long as
  // the queue is drained. If the full queue drops the call, the answer is std::nullopt. A task of
  // the queue that waits for the future blocks forever unless another worker is free.
  auto Call(Request request) const {
    if constexpr (kType == bridge::BridgeType::Sync) {
      return Call(std::move(request), std::chrono::milliseconds(-1));
    } else {
      return CallQueued(std::move(request));
    }
  }

  // Does the same, but returns std::nullopt after that time. A negative limit means without limit.
  // A late answer is ignored. A direct server is invoked on this thread and is not interrupted.
  std::optional<Response> Call(Request request, std::chrono::milliseconds limit) const {
    static_assert(kType == bridge::BridgeType::Sync, "only a call of a Sync service has a limit");
    std::optional<Response> answer;
    if (state_ != nullptr) {
      const std::any any(std::in_place_type<Request>, std::move(request));
      detail::CallAndWait(*state_, any, detail::kAnswerType<Response>, &answer, limit);
    }
    return answer;
  }

  // Does not wait for an answer; a direct server is invoked on this thread.
  // callable(std::optional<Response>) is invoked once, where the client was told to: in a drain of
  // its inbox, or of the bridge's queue. It may destroy the client. Answers of one server arrive in
  // the order of the calls. Throws std::logic_error if the client is direct.
  template <typename Callable,
            std::enable_if_t<!std::is_convertible_v<Callable, std::chrono::milliseconds>, int> = 0>
  void Call(Request request, Callable callable) const {
    static_assert(!std::is_arithmetic_v<Callable>, "write the limit as a std::chrono duration");
    detail::CheckCallable<Callable, std::optional<Response>>();
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync service can have an inbox");
    if (state_ == nullptr) return;
    const std::any any(std::in_place_type<Request>, std::move(request));
    detail::CallAndReply(*state_, any, detail::kAnswerType<Response>,
                         detail::Await<Response>(std::move(callable)));
  }

 private:
  std::future<std::optional<Response>> CallQueued(Request request) const {
    std::promise<std::optional<Response>> promise;
    auto future = promise.get_future();
    if (state_ == nullptr) {
      promise.set_value(std::nullopt);
      return future;
    }
    detail::CallQueued(*state_, std::any(std::in_place_type<Request>, std::move(request)),
                       detail::kAnswerType<Response>,
                       detail::Await<Response>(detail::Promised<Response>{std::move(promise)}));
    return future;
  }

  detail::Owned<detail::ClientState> state_;
};

}  // namespace zorvix

#endif  // ZORVIX_CLIENT_H_
