// The client of a service.
//
//   const zorvix::Client title(kTitle);
//   const zorvix::Answer<std::string> answer = title.Call(7);
//
//   const zorvix::Client cover(kCover, inbox);
//   cover.Call(7, [this](const zorvix::Answer<Cover>& answer) { ... });
#ifndef ZORVIX_CLIENT_H_
#define ZORVIX_CLIENT_H_

#include <zorvix/answer.h>
#include <zorvix/delivery.h>
#include <zorvix/detail/awaiting.h>
#include <zorvix/detail/library.h>
#include <zorvix/detail/mistakes.h>
#include <zorvix/timeout.h>
#include <zorvix/topic.h>

#include <any>
#include <future>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace zorvix {

// An answer is a std::optional<Response> that knows why it is empty. A moved-from client makes no
// calls.
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class [[nodiscard]] Client {
 public:
  // For calls that block or return a std::future.
  [[nodiscard]] explicit Client(const Service<Request, Response, kType>& service)
      : state_(Make(service, detail::Place{}, {})) {}

  // With Delivery::Direct, for blocking calls only. With Delivery::Queued, the callables of its
  // calls are invoked one at a time where the bridge's queue is drained. When the client is
  // destroyed, callables that have not been invoked are destroyed; the destructor blocks while
  // another thread is inside one of them.
  //
  // `keep` limits how many calls with a callable are in progress or have an answer that is pending.
  // A call beyond that is not made: its callable is invoked with Why::Dropped, in its turn. Logs a
  // WARN with the first such call, and one with their number when nothing is pending any more. A
  // depth of 0 throws std::invalid_argument.
  [[nodiscard]] Client(const Service<Request, Response, kType>& service, Delivery delivery,
                       KeepLast keep = {1000})
      : state_(Make(service, detail::Place{delivery}, keep)) {
    static_assert(kType == bridge::BridgeType::Sync,
                  "only a Sync service has a choice of delivery");
  }

  // Invokes the callables of its calls in drains of the inbox. If the inbox is destroyed first,
  // callables that have not been invoked are destroyed with it or with the client.
  [[nodiscard]] Client(const Service<Request, Response, kType>& service, Inbox& inbox,
                       KeepLast keep = {1000})
      : state_(Make(service, detail::Place{Delivery::Queued, &inbox}, keep)) {
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync service can have an inbox");
  }

  // Any other arguments: says what is wrong.
  template <typename Given, typename... More,
            detail::IfMistaken<detail::Takes::kPlace, Service<Request, Response, kType>, Given,
                               More...> = 0>
  explicit Client(Given&&, More&&...) {
    static_cast<void>(detail::Mistake<detail::Takes::kPlace, Service<Request, Response, kType>,
                                      Given, More...>());
  }

  // Blocks until the server has answered: on this thread, where the bridge's queue is drained, in a
  // drain of the server's inbox, or with a Reply. Returns the answer. If the server could only
  // answer after the calling callable has returned, it logs an ERROR and returns
  // Why::WouldDeadlock. Two threads that drain inboxes and call servers of each other's block
  // forever; so does a task of the queue that calls a queued server, unless another worker is free.
  //
  // Async or SignleAsync service: returns a std::future of the answer. It becomes ready as long as
  // the queue is drained; the queue may drop the call. A task of the queue that waits for the
  // future blocks forever unless another worker is free.
  auto Call(Request request) const {
    if constexpr (kType == bridge::BridgeType::Sync) {
      return Call(std::move(request), Timeout::Forever());
    } else {
      return CallQueued(std::move(request));
    }
  }

  // Does the same, but returns Why::TimedOut after `timeout`. A late answer is ignored. A direct
  // server is invoked on this thread and is not interrupted.
  Answer<Response> Call(Request request, Timeout timeout) const {
    static_assert(kType == bridge::BridgeType::Sync, "only a call of a Sync service has a timeout");
    Answer<Response> answer;
    if (state_ != nullptr) {
      const std::any any(std::in_place_type<Request>, std::move(request));
      detail::CallAndWait(*state_, any, detail::kAnswerType<Response>, detail::SlotOf(answer),
                          timeout);
    }
    return answer;
  }

  // Does not wait for an answer; a direct server is invoked on this thread.
  // callable(Answer<Response>) is invoked once, in a drain of the client's inbox, or where the
  // bridge's queue is drained. It may destroy the client, and may take a std::optional<Response>
  // instead. A server processes requests in the order of the calls. Requests that it does not
  // process, such as dropped ones, are answered immediately: these answers may overtake earlier
  // ones. Throws std::logic_error if the client is direct.
  template <typename Callable, std::enable_if_t<!std::is_convertible_v<Callable, Timeout>, int> = 0>
  void Call(Request request, Callable callable) const {
    static_assert(!std::is_arithmetic_v<Callable>, "write the timeout as a std::chrono duration");
    Call(std::move(request), Timeout::Forever(), std::move(callable));
  }

  // Does the same, but if there is no answer after `timeout`, the callable is invoked with
  // Why::TimedOut in the next drain of the inbox. Inbox::Wait and an InboxThread wake up for it,
  // and Inbox::fd becomes readable. A late answer is ignored. Throws std::logic_error if the client
  // has no inbox.
  template <typename Callable>
  void Call(Request request, Timeout timeout, Callable callable) const {
    detail::CheckCallable<Callable, Answer<Response>>();
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync service can have an inbox");
    if (state_ == nullptr) return;
    const std::any any(std::in_place_type<Request>, std::move(request));
    detail::CallAndReply(*state_, any, detail::kAnswerType<Response>, timeout,
                         detail::Await<Response>(std::move(callable)));
  }

  // Blocks until the service has a server handle, of any module, and returns true. Returns false
  // after `timeout`. When it has returned, the server may be destroyed already. Servers that are
  // registered through zorvix.h are not seen. Another thread must construct the server. Without a
  // timeout, it is refused in a drain of the client's own inbox or queue, which could do nothing
  // else meanwhile: if there is no server, it logs an ERROR and returns false.
  bool WaitForServer(Timeout timeout = Timeout::Forever()) const {
    return state_ != nullptr && detail::WaitForServer(*state_, timeout);
  }

 private:
  static detail::Owned<detail::ClientState> Make(const Service<Request, Response, kType>& service,
                                                 const detail::Place& place, KeepLast keep) {
    return detail::MakeClient({service.name, kType}, typeid(Request), typeid(Response), place,
                              keep);
  }

  std::future<Answer<Response>> CallQueued(Request request) const {
    std::promise<Answer<Response>> promise;
    auto future = promise.get_future();
    if (state_ == nullptr) {
      promise.set_value({});
      return future;
    }
    detail::CallQueued(*state_, std::any(std::in_place_type<Request>, std::move(request)),
                       detail::kAnswerType<Response>,
                       detail::Await<Response>(detail::Promised<Response>{std::move(promise)}));
    return future;
  }

  detail::Owned<detail::ClientState> state_;
};

// Leads to the constructor that says what is wrong.
Client(...)->Client<detail::Unknown, detail::Unknown>;

}  // namespace zorvix

#endif  // ZORVIX_CLIENT_H_
