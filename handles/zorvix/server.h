// The server of a service.
//
//   #include <zorvix/server.h>
//
//   #include <string>
//   #include <utility>
//
//   inline constexpr zorvix::Service<int, std::string> kTitle{"title"};
//   inline constexpr zorvix::Service<int, std::string> kLyrics{"lyrics"};
//
//   class Library {
//    public:
//     virtual std::string TitleOf(int track) = 0;
//     virtual void Load(int track, zorvix::Reply<std::string> reply) = 0;  // reply(text) later
//
//    private:
//     const zorvix::Server<int, std::string> title_{
//         kTitle, [this](int track) { return TitleOf(track); }};
//     const zorvix::Server<int, std::string> lyrics_{
//         kLyrics, [this](int track, zorvix::Reply<std::string> reply) {
//           if (track < 0) return reply.Refuse();
//           Load(track, std::move(reply));
//         }};
//   };
//
// A service has one server at a time. A new server replaces the current one, and the bridge logs a
// WARN. Server handles of one service may be destroyed in any order: when the current one is
// destroyed, the latest of those that still exist takes over, which logs the same WARN. A server
// that is replaced still answers the requests that are pending for it.
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

#include <typeinfo>
#include <utility>

namespace zorvix {

// Answers each call with what callable(const Request&) returns, which is converted to Response. If
// the callable throws anything, the caller gets Why::Threw.
//
// Or invokes callable(const Request&, Reply<Response>), which answers with the reply, refuses the
// call, or keeps the reply to answer later; see answer.h. A caller without a handle waits for the
// answer on the thread that invokes the server, so do not answer in a later task of that thread.
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class [[nodiscard]] Server {
 public:
  // Invokes the callable directly, on the caller's thread. Several threads may do so at the same
  // time. For an Async or SignleAsync service, where the bridge's queue is drained.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Server(const Service<Request, Response, kType>& service, Callable callable)
      : state_(Make(service, callable, {}, {})) {}

  // With Delivery::Queued, invokes the callable where the bridge's queue is drained, for one
  // request at a time. At most `keep` requests are pending, 100 by default: if there are more, the
  // oldest is dropped, and its caller gets Why::Dropped. Requests that are pending when the server
  // is destroyed get Why::Destroyed.
  // REQUIRES: a Sync service; others are a compile error.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Server(const Service<Request, Response, kType>& service, Callable callable,
                       Delivery delivery, KeepLast keep = {})
      : state_(Make(service, callable, detail::At<kType>(delivery), keep)) {}

  // Does the same in drains of `inbox`. Requests that are pending when the inbox is destroyed, and
  // later ones, get Why::Destroyed, too.
  // REQUIRES: a Sync service; others are a compile error.
  template <typename Callable, detail::IfCallable<Callable> = 0>
  [[nodiscard]] Server(const Service<Request, Response, kType>& service, Callable callable,
                       Inbox& inbox, KeepLast keep = {})
      : state_(Make(service, callable, detail::At<kType>(inbox), keep)) {}

  // Other arguments: a compile error that says what is wrong.
  template <typename Given, typename... More,
            detail::IfMistaken<detail::Takes::kCallable, Service<Request, Response, kType>, Given,
                               More...> = 0>
  explicit Server(Given&&, More&&...) {
    detail::Explain<detail::Takes::kCallable, Service<Request, Response, kType>, Given, More...>();
  }

 private:
  template <typename Callable>
  static auto Make(const Service<Request, Response, kType>& service, Callable& callable,
                   const detail::Place& place, KeepLast keep) {
    return detail::Serve({service.name, kType}, detail::kMessageType<Request>, typeid(Response),
                         detail::AnswerWith<Request, Response>(std::move(callable)), place, keep);
  }

  detail::Owned<detail::ServerState> state_;
};
Server(...)->Server<detail::Unknown, detail::Unknown>;  // for that constructor

}  // namespace zorvix

#endif  // ZORVIX_SERVER_H_
