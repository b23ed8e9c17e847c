// The client of a service.
#ifndef ZORVIX_CLIENT_H_
#define ZORVIX_CLIENT_H_

#include <zorvix/detail/call_queue.h>
#include <zorvix/detail/handle.h>
#include <zorvix/inbox.h>
#include <zorvix/topic.h>

namespace zorvix {

namespace detail ZORVIX_HIDDEN {

template <typename Response, typename Function>
class CallFunction final : public PendingCall<Response> {
 public:
  CallFunction(std::shared_ptr<CallQueue<Response>> queue, Function function)
      : PendingCall<Response>(std::move(queue)), function_(std::move(function)) {}

 private:
  void Invoke() override { static_cast<void>(std::invoke(*function_, std::move(this->answer_))); }
  void DestroyCallable() override { function_.reset(); }
  std::optional<Function> function_;
};

template <typename Response>
struct ClientState {
  ClientState(const std::string& service, bridge::BridgeType type)
      : sender("Client", service, DescribeService(service, type)) {}
  ClientState(const std::string& service, std::shared_ptr<Mailbox> mailbox)
      : calls(std::in_place,
              std::make_shared<CallQueue<Response>>("Client", service, std::move(mailbox))),
        sender("Client", service, DescribeService(service, bridge::BridgeType::Sync),
               (**calls).get()) {}
  const std::optional<Owner<CallQueue<Response>>> calls;  // with an inbox
  const Sender sender;
};

}  // namespace detail

// An answer is a std::optional<Response>. It is none (std::nullopt) if there is no server, or the
// server throws, answers with another type, or is destroyed before it has answered. A moved-from
// client makes no calls.
template <typename Request, typename Response, bridge::BridgeType kType = bridge::BridgeType::Sync>
class Client {
 public:
  [[nodiscard]] ZORVIX_HIDDEN explicit Client(const Service<Request, Response, kType>& service)
      : state_(std::make_shared<State>(service.name, kType)) {}

  // Invokes the callables of its calls in drains of the inbox. When the client is destroyed,
  // callables that have not been invoked are destroyed. The destructor blocks while another thread
  // is inside one of them. If the inbox is destroyed first, they are destroyed with it or with the
  // client.
  [[nodiscard]] ZORVIX_HIDDEN Client(const Service<Request, Response, kType>& service, Inbox& inbox)
      : state_(std::make_shared<State>(service.name, inbox.state().mailbox)) {
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync service can have an inbox");
  }
  ZORVIX_MOVE_ONLY(Client);

  // Sync service: blocks until the server has answered, on this thread or in a drain of its inbox,
  // and returns the answer. If this thread is draining the server's inbox, it logs an ERROR and
  // returns none. Two threads that drain inboxes and call servers of each other's block forever.
  //
  // Async or SignleAsync service: returns a std::future of the answer. It becomes ready as long as
  // the queue is drained. If the full queue drops the call, the answer is none. A task of the queue
  // that waits for the future blocks forever unless another worker is free.
  ZORVIX_HIDDEN auto Call(Request request) const {
    std::any any(std::in_place_type<Request>, std::move(request));
    if constexpr (kType == bridge::BridgeType::Sync) {
      return CallUntil(any, std::chrono::milliseconds(-1));
    } else {
      const auto* const its = state();
      if (its == nullptr) return detail::CallQueued<Response>(nullptr, std::move(any));
      const detail::Section section(its->sender.process, "Call", its->sender.name);
      return detail::CallQueued<Response>(its->sender.participant.control, std::move(any));
    }
  }

  // Does the same, but waits at most that long for a server with an inbox, and returns none then. A
  // negative limit means without limit. A late answer is ignored. A server without an inbox is
  // invoked on this thread and is not interrupted.
  ZORVIX_HIDDEN std::optional<Response> Call(Request request,
                                             std::chrono::milliseconds limit) const {
    static_assert(kType == bridge::BridgeType::Sync, "only a call of a Sync service has a limit");
    return CallUntil(std::any(std::in_place_type<Request>, std::move(request)), limit);
  }

  // Returns without waiting for a server's inbox; a server without one is invoked on this thread.
  // callable(std::optional<Response>) is invoked once, in a drain of the client's inbox. It may
  // destroy the client. Answers of one server arrive in the order of the calls. Throws
  // std::logic_error if the client has no inbox.
  template <typename Callable,
            std::enable_if_t<!std::is_convertible_v<Callable, std::chrono::milliseconds>, int> = 0>
  ZORVIX_INLINED void Call(Request request, Callable callable) const {
    static_assert(!std::is_arithmetic_v<Callable>, "write the limit as a std::chrono duration");
    detail::CheckCallable<Callable, std::optional<Response>>();
    static_assert(kType == bridge::BridgeType::Sync, "only a Sync service can have an inbox");
    auto* const its = state();
    if (its == nullptr) return;
    if (!its->calls) throw std::logic_error("a call with a callable needs a client with an inbox");
    const detail::Section section(its->sender.process, "Call", its->sender.name);
    const std::any any(std::in_place_type<Request>, std::move(request));
    using Function = detail::CallFunction<Response, Callable>;
    const auto& calls = **its->calls;
    const auto call = std::make_shared<Function>(calls, std::move(callable));
    detail::CallAndReply<Response>(its->sender.participant.control, any, calls->Add(call));
  }

 private:
  using State = detail::ClientState<Response>;
  ZORVIX_HIDDEN State* state() const { return static_cast<State*>(state_.get()); }
  ZORVIX_HIDDEN std::optional<Response> CallUntil(const std::any& request,
                                                  std::chrono::milliseconds limit) const {
    const auto* const its = state();
    if (its == nullptr) return std::nullopt;
    const detail::Section section(its->sender.process, "Call", its->sender.name);
    return detail::CallAndWait<Response>(its->sender.participant.control, request,
                                         detail::Deadline(limit));
  }

  std::shared_ptr<void> state_;
};

}  // namespace zorvix

#endif  // ZORVIX_CLIENT_H_
