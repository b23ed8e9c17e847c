// The server of a service.
//
//   const zorvix::Server title(kTitle, [](int track) { return TitleOf(track); });
//   const zorvix::Server slow(kCover, FindCover, zorvix::Delivery::Queued, zorvix::KeepLast{10});
//   const zorvix::Server shown(kShown, [this](int) { return shown_; }, inbox);
//   const zorvix::Server loaded(kLoad, [this](int page, zorvix::Reply<Page> reply) {
//     loader_.Load(page, reply);  // which calls reply(page) later, on a thread of its own
//   });
//
// A service has one server at a time. A new server replaces the current one, and the bridge logs a
// WARN. Server handles of one service may be destroyed in any order: when the current one is
// destroyed, the latest of those that still exist takes over, which logs the same WARN.
//
// Limitation: destroying a handle may remove a server that was registered without a handle
// (Zorvix::RegisterServer), if that has replaced the handle while calls of the handle were in
// progress.
#ifndef ZORVIX_SERVER_H_
#define ZORVIX_SERVER_H_

#include <zorvix/answer.h>
#include <zorvix/delivery.h>
#include <zorvix/detail/library.h>
#include <zorvix/detail/mistakes.h>
#include <zorvix/topic.h>

#include <type_traits>
#include <typeinfo>
#include <utility>

namespace zorvix {

template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class [[nodiscard]] Server {
 public:
  // Answers each call with callable(const Request&), which returns a Response, on the caller's
  // thread.
  //
  // Or invokes callable(const Request&, Reply<Response>), which may keep the reply to answer later.
  // A caller without a handle waits for the answer on the thread that invokes the server, so do not
  // answer in a later task of that thread.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Server(const Service<Request, Response, kType>& service, Callable callable)
      : state_(Make(service, callable, detail::Place{}, {})) {}

  // With Delivery::Queued, one request at a time where the bridge's queue is drained. At most
  // `keep` requests are pending then: the oldest is dropped, and its caller gets Why::Dropped.
  // Requests that are pending when the server is destroyed get Why::Destroyed.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Server(const Service<Request, Response, kType>& service, Callable callable,
                       Delivery delivery, KeepLast keep = {})
      : state_(Make(service, callable, detail::Place{delivery}, keep)) {
    static_assert(kType == bridge::BridgeType::Sync,
                  "only a Sync service has a choice of delivery");
  }

  // Answers in drains of the inbox. Requests that are pending when the inbox is destroyed get
  // Why::Destroyed, too.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Server(const Service<Request, Response, kType>& service, Callable callable,
                       Inbox& inbox, KeepLast keep = {})
      : state_(Make(service, callable, detail::Place{Delivery::Queued, &inbox}, keep)) {
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync service can have an inbox");
  }

  // Any other arguments: says what is wrong.
  template <typename Given, typename... More,
            detail::IfMistaken<detail::Takes::kCallable, Service<Request, Response, kType>, Given,
                               More...> = 0>
  explicit Server(Given&&, More&&...) {
    static_cast<void>(detail::Mistake<detail::Takes::kCallable, Service<Request, Response, kType>,
                                      Given, More...>());
  }

 private:
  template <typename Callable>
  static detail::Owned<detail::ServerState> Make(const Service<Request, Response, kType>& service,
                                                 Callable& callable, const detail::Place& place,
                                                 KeepLast keep) {
    return detail::Serve({service.name, kType}, detail::kMessageType<Request>, typeid(Response),
                         detail::AnswerWith<Request, Response>(std::move(callable)), place, keep);
  }

  detail::Owned<detail::ServerState> state_;
};

// Leads to the constructor that says what is wrong.
Server(...)->Server<detail::Unknown, detail::Unknown>;

}  // namespace zorvix

#endif  // ZORVIX_SERVER_H_
