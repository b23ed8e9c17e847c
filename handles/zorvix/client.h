// The client of a service.
//
//   #include <zorvix/client.h>
//   #include <zorvix/inbox.h>
//
//   #include <chrono>
//   #include <string>
//
//   inline constexpr zorvix::Service<int, std::string> kTitle{"title"};
//
//   class Player {
//    public:
//     explicit Player(zorvix::Inbox& inbox) : client_(kTitle, inbox) {}
//
//     std::string Title(int track) const {  // blocks
//       return client_.Call(track, std::chrono::seconds(1)).value_or("unknown");
//     }
//     void ShowTitle(int track) {  // does not wait, except for a direct server
//       client_.Call(track, [this](const zorvix::Answer<std::string>& title) {
//         shown_ = title ? *title : zorvix::NameOf(title.why());
//       });
//     }
//
//    private:
//     std::string shown_;
//     const zorvix::Client<int, std::string> client_;
//   };
//
// Client: Call, which blocks, invokes a callable later, or returns a std::future; WaitForServer.
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

// An answer is a std::optional<Response> that knows why it is empty; see answer.h. Any thread may
// use a client, also in a callable.
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class [[nodiscard]] Client {
 public:
  // For calls that block or return a std::future.
  [[nodiscard]] explicit Client(const Service<Request, Response, kType>& service)
      : state_(Make(service, {}, {})) {}

  // With Delivery::Direct, for calls that block. With Delivery::Queued, the callables of its calls
  // are invoked one at a time where the bridge's queue is drained.
  //
  // `keep`, 1000 by default, limits how many calls with a callable are in progress or have an
  // answer that is pending. A call beyond that is not made: its callable is invoked with
  // Why::Dropped, in its turn. Logs a WARN with the first such call, and one with their number when
  // nothing is pending any more. A depth of 0 throws std::invalid_argument.
  // REQUIRES: a Sync service; others are a compile error.
  [[nodiscard]] Client(const Service<Request, Response, kType>& service, Delivery delivery,
                       KeepLast keep = {1000})
      : state_(Make(service, detail::At<kType>(delivery), keep)) {}

  // Invokes the callables of its calls in drains of `inbox`. `keep` limits them in the same way.
  // REQUIRES: a Sync service; others are a compile error.
  [[nodiscard]] Client(const Service<Request, Response, kType>& service, Inbox& inbox,
                       KeepLast keep = {1000})
      : state_(Make(service, detail::At<kType>(inbox), keep)) {}

  // Blocks until the server has answered: on this thread, where the bridge's queue is drained, in a
  // drain of the server's inbox, or with a Reply. Returns the answer.
  //
  // If this thread is in a drain of the server's own inbox, or in the callable of the queued server
  // itself, logs an ERROR and returns Why::WouldDeadlock. Other deadlocks are not noticed, and
  // block forever: nobody but this thread drains the server's inbox; two threads that drain inboxes
  // call servers in each other's inbox; a callable on a worker calls a queued server, or waits for
  // a future, while no other worker is free.
  //
  // Async or SignleAsync service: does not block, and returns a std::future of the answer. It
  // becomes ready when the bridge's queue is drained, or with Why::Dropped if the queue has dropped
  // the call.
  auto Call(Request request) const;

  // Does the same for a Sync service, but returns Why::TimedOut after `timeout`. A late answer is
  // ignored. A direct server is invoked on this thread and is not interrupted: its answer counts,
  // however long it takes.
  Answer<Response> Call(Request request, Timeout timeout) const;

  // Invokes callable(Answer<Response>) later, with the answer, in a drain of the client's inbox, or
  // where the bridge's queue is drained. The callable may destroy the client, and may take a
  // std::optional<Response> instead. Does not block, but a direct server is invoked on this thread.
  //
  // The callable is invoked at most once. It is destroyed without being invoked if the client or
  // its inbox is destroyed before, or if the client is moved-from. It is not invoked as long as the
  // server keeps its Reply, or nobody drains. The client's destructor blocks while another thread
  // is inside it.
  //
  // A server processes requests in the order of the calls. Requests that it does not process, such
  // as dropped ones, are answered immediately: these answers may overtake earlier ones.
  // REQUIRES: the client is queued or has an inbox. Otherwise throws std::logic_error.
  template <typename Callable, std::enable_if_t<!std::is_convertible_v<Callable, Timeout>, int> = 0>
  void Call(Request request, Callable callable) const;

  // Does the same, but if there is no answer after `timeout`, the callable is invoked with
  // Why::TimedOut in the next drain of the inbox. Inbox::Wait and an InboxThread wake up for it,
  // and Inbox::fd becomes readable. A late answer is ignored.
  // REQUIRES: the client has an inbox. Otherwise throws std::logic_error.
  template <typename Callable>
  void Call(Request request, Timeout timeout, Callable callable) const;

  // Blocks until the service has a server handle, of any module, and returns true. Returns false
  // after `timeout`, which is forever by default. When it has returned, the server may be destroyed
  // already, and it may have other types. Servers that are registered through zorvix.h are not
  // seen. Logs a WARN after 1, 10 and 100 seconds.
  //
  // Without a timeout, it is refused in drains of the client's own inbox, and in the callables of a
  // queued client, since nothing else could be invoked there meanwhile: if there is no server, logs
  // an ERROR and returns false.
  // REQUIRES: another thread constructs the server.
  bool WaitForServer(Timeout timeout = Timeout::Forever()) const {
    return state_ != nullptr && detail::WaitForServer(*state_, timeout);
  }

  // Other arguments: a compile error that says what is wrong.
  template <typename Given, typename... More,
            detail::IfMistaken<detail::Takes::kPlace, Service<Request, Response, kType>, Given,
                               More...> = 0>
  explicit Client(Given&&, More&&...) {
    detail::Explain<detail::Takes::kPlace, Service<Request, Response, kType>, Given, More...>();
  }

 private:
  static auto Make(const Service<Request, Response, kType>& service, const detail::Place& place,
                   KeepLast keep) {
    return detail::MakeClient({service.name, kType}, typeid(Request), typeid(Response), place,
                              keep);
  }
  std::future<Answer<Response>> CallQueued(Request request) const;

  detail::Owned<detail::ClientState> state_;
};
Client(...)->Client<detail::Unknown, detail::Unknown>;  // for that constructor

template <typename Request, typename Response, bridge::BridgeType kType>
auto Client<Request, Response, kType>::Call(Request request) const {
  if constexpr (kType == bridge::BridgeType::Sync) {
    return Call(std::move(request), Timeout::Forever());
  } else {
    return CallQueued(std::move(request));
  }
}

template <typename Request, typename Response, bridge::BridgeType kType>
Answer<Response> Client<Request, Response, kType>::Call(Request request, Timeout timeout) const {
  static_assert(kType == bridge::BridgeType::Sync, "only a call of a Sync service has a timeout");
  Answer<Response> answer;
  if (state_ != nullptr) {
    const std::any any(std::in_place_type<Request>, std::move(request));
    detail::CallAndWait(*state_, any, detail::kAnswerType<Response>, detail::SlotOf(answer),
                        timeout);
  }
  return answer;
}

template <typename Request, typename Response, bridge::BridgeType kType>
template <typename Callable, std::enable_if_t<!std::is_convertible_v<Callable, Timeout>, int>>
void Client<Request, Response, kType>::Call(Request request, Callable callable) const {
  static_assert(!std::is_arithmetic_v<Callable>, "write the timeout as a std::chrono duration");
  Call(std::move(request), Timeout::Forever(), std::move(callable));
}

template <typename Request, typename Response, bridge::BridgeType kType>
template <typename Callable>
void Client<Request, Response, kType>::Call(Request request, Timeout timeout,
                                            Callable callable) const {
  detail::CheckCallable<Callable, Answer<Response>>();
  static_assert(kType == bridge::BridgeType::Sync,
                "only a Sync topic or service can have an inbox");
  if (state_ == nullptr) return;
  const std::any any(std::in_place_type<Request>, std::move(request));
  detail::CallAndReply(*state_, any, detail::kAnswerType<Response>, timeout,
                       detail::Await<Response>(std::move(callable)));
}

template <typename Request, typename Response, bridge::BridgeType kType>
std::future<Answer<Response>> Client<Request, Response, kType>::CallQueued(Request request) const {
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

}  // namespace zorvix

#endif  // ZORVIX_CLIENT_H_
