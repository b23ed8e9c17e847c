// What subscribers, servers, publishers and clients are made of. Not for users.
#ifndef ZORVIX_DETAIL_HANDLE_H_
#define ZORVIX_DETAIL_HANDLE_H_

#include <zorvix/detail/dispatcher.h>
#include <zorvix/detail/endpoint.h>
#include <zorvix/detail/gate.h>
#include <zorvix/detail/message_queue.h>
#include <zorvix/detail/reply.h>

#include <future>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

// A registration whose function passes on to a gate or queue. When it is destroyed, first the
// registration ends and then the gate or queue is closed.
template <typename Closable, typename Registration>
struct Receiver {
  template <typename Function>
  Receiver(std::shared_ptr<Closable> closable, const std::string& name, bridge::BridgeType type,
           Function function)
      : owner(std::move(closable)),
        registration(name, type, std::move(function)),
        listed(**owner) {}

  const Owner<Closable> owner;
  const Registration registration;
  const Listed listed;
};

template <typename Message, typename Callable>
std::shared_ptr<void> SubscribeDirectly(const std::string& topic, bridge::BridgeType type,
                                        Callable callable) {
  const auto gate =
      std::make_shared<GatedCallable<Callable>>("Subscriber", topic, std::move(callable));
  const auto deliver = [gate](const std::any& message) {
    // The second and later subscribers of a queued topic get an empty message.
    if (!message.has_value()) return;
    (*gate)(Cast<Message>(message, "message", "subscriber"));
  };
  return std::make_shared<Receiver<Gate, Subscription>>(gate, topic, type, deliver);
}

template <typename Message, typename Callable>
std::shared_ptr<void> SubscribeWithMailbox(const std::string& topic,
                                           std::shared_ptr<Mailbox> mailbox, Callable callable,
                                           KeepLast keep) {
  const auto queue = std::make_shared<MessageQueue<Message, Callable>>(
      "Subscriber", topic, std::move(mailbox), std::move(callable), keep);
  const auto push = [queue](const std::any& message) {
    queue->Push(Cast<Message>(message, "message", "subscriber"));
  };
  return std::make_shared<Receiver<Queue, Subscription>>(queue, topic, bridge::BridgeType::Sync,
                                                         push);
}

template <typename Request, typename Response, typename Callable>
std::shared_ptr<void> ServeDirectly(const std::string& service, bridge::BridgeType type,
                                    Callable callable) {
  auto answer = [callable = std::move(callable)](const Request& request,
                                                 std::any& response) mutable {
    const auto ask = [&]() -> Response { return std::invoke(callable, request); };
    response.emplace<Response>(ask());
  };
  const auto gate =
      std::make_shared<GatedCallable<decltype(answer)>>("Server", service, std::move(answer));
  const auto serve = [gate](const std::any& request, std::any& response) {
    (*gate)(Cast<Request>(request, "request", "server"), response);
  };
  return std::make_shared<Receiver<Gate, ServerRegistration>>(gate, service, type, serve);
}

template <typename Request, typename Response>
struct PendingRequest {
  Request request;
  ReplyOwner<Response> reply;
};
// Moving a reply runs no code of users.
template <typename Request, typename Response>
constexpr bool kIsStoredInPlace<PendingRequest<Request, Response>> = kIsStoredInPlace<Request>;

template <typename Request, typename Response, typename Callable>
std::shared_ptr<void> ServeWithMailbox(const std::string& service, std::shared_ptr<Mailbox> mailbox,
                                       Callable callable, KeepLast keep) {
  using Pending = PendingRequest<Request, Response>;
  auto answer = [callable = std::move(callable)](const Pending& pending) mutable {
    pending.reply.Answer(std::invoke(callable, pending.request));
  };
  const auto queue = std::make_shared<MessageQueue<Pending, decltype(answer)>>(
      "Server", service, std::move(mailbox), std::move(answer), keep);
  const auto serve = [queue](const std::any& any, std::any& response) {
    const auto& request = Cast<Request>(any, "request", "server");
    auto* const offer = FindOffer<Response>(response);
    const bool caller_waits = offer == nullptr || offer->caller_waits();
    if (caller_waits && queue->mailbox().IsDrainedByThisThread()) {
      ZORVIX_LOG("detail/handle.h", bridge::kLogError,
                 "a callable calls a server of the inbox that invokes it and would wait forever, "
                 "name: %s",
                 queue->name.c_str());
      return;
    }
    if (offer != nullptr) {
      queue->Push(Pending{request, offer->Take()});
      return;
    }
    // A client without a handle, which expects the answer in the response.
    WaitingOffer<Response> own;
    queue->Push(Pending{request, own.Take()});
    if (auto given = own.Wait(Deadline(std::chrono::milliseconds(-1)))) {
      response.emplace<Response>(std::move(*given));
    }
  };
  return std::make_shared<Receiver<Queue, ServerRegistration>>(queue, service,
                                                               bridge::BridgeType::Sync, serve);
}

// A publisher or client.
struct Sender final : Record {
  // Lists `record`, if there is one, in place of itself.
  Sender(const char* its_kind, const std::string& its_name, Control described,
         Record* record = nullptr)
      : Record(its_kind, its_name),
        participant(std::move(described)),
        listed(record == nullptr ? *this : *record) {}

  const Participant participant;
  // Keeps the bridge from logging that there is no subscriber. On a queued topic it could be the
  // first subscriber, and take each message.
  std::optional<Subscription> optional_audience;
  const Listed listed;
};

inline void Ignore(const std::any&) {}

inline std::shared_ptr<Sender> MakePublisher(const std::string& topic, bridge::BridgeType type,
                                             Audience audience) {
  auto sender = std::make_shared<Sender>("Publisher", topic, DescribeTopic(topic, type));
  if (audience == Audience::Optional) sender->optional_audience.emplace(topic, type, Ignore);
  return sender;
}

// Calls the server's function, and hands on the answer if the server has given one:
// give(Response&&). The bridge contains and logs a std::exception.
template <typename Response, typename Give>
struct Asking {
  void operator()(const ServerFunction& serve) {
    try {
      serve(request, response);
      const bool is_offer = std::any_cast<AnyReplyOffer*>(&response) != nullptr;
      if (response.has_value() && !is_offer) {
        give(std::move(Cast<Response>(response, "answer", "client")));
      }
    } catch (const std::exception&) {
      throw;
    } catch (...) {
      throw std::runtime_error("the server, or its answer, threw what is no std::exception");
    }
  }

  const std::any& request;
  std::any response;
  const Give& give;
};

template <typename Response, typename Give>
void CallNow(const Control& control, const std::any& request, AnyReplyOffer* offer,
             const Give& give) {
  Asking<Response, Give> asking{request, offer, give};
  // A reference only, so that the bridge's std::function needs no allocation.
  Bridge().Call(control, [&asking](const ServerFunction& serve) { asking(serve); });
}

template <typename Response>
std::optional<Response> CallAndWait(const Control& control, const std::any& request,
                                    Clock::time_point end) {
  WaitingOffer<Response> offer;
  std::optional<Response> answer;
  const auto give = [&](Response&& given) { answer.emplace(std::move(given)); };
  CallNow<Response>(control, request, &offer, give);
  if (answer.has_value()) return answer;
  return offer.Wait(end);
}

template <typename Response>
void CallAndReply(const Control& control, const std::any& request, ReplyOwner<Response> reply) {
  CallOffer<Response> offer(std::move(reply));
  const auto give = [&](Response&& given) { offer.Answer(std::move(given)); };
  CallNow<Response>(control, request, &offer, give);
}

// The answer of a queued call. It is none if this is destroyed without one.
template <typename Response>
struct PromisedAnswer {
  PromisedAnswer() = default;
  ~PromisedAnswer() {
    if (!given) promise.set_value(std::nullopt);
  }
  PromisedAnswer(const PromisedAnswer&) = delete;
  PromisedAnswer& operator=(const PromisedAnswer&) = delete;
  std::promise<std::optional<Response>> promise;
  bool given = false;
};

template <typename Response>
std::future<std::optional<Response>> CallQueued(const Control& control, std::any request) {
  const auto promised = std::make_shared<PromisedAnswer<Response>>();
  auto answer = promised->promise.get_future();
  auto ask = [promised, request = std::move(request)](const ServerFunction& serve) {
    const auto give = [&](Response&& given) {
      promised->promise.set_value(std::move(given));
      promised->given = true;
    };
    Asking<Response, decltype(give)>{request, {}, give}(serve);
  };
  if (control != nullptr) Bridge().Call(control, std::move(ask));
  return answer;
}

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_HANDLE_H_
