// Clients of services.
#include <zorvix/detail/library.h>

#include <exception>
#include <stdexcept>
#include <utility>

#include "call_queue.h"
#include "endpoint.h"
#include "inbox.h"
#include "waiting_reply.h"

namespace zorvix::detail {
namespace {

class WaitingOffer final : public Offer {
 public:
  WaitingOffer(const AnswerType& its_type, void* optional)
      : Offer(its_type, optional, true), slot_{optional, nullptr} {}
  ReplyOwner Take() override {
    reply_ = std::make_shared<WaitingReply>(slot_);
    return ReplyOwner(reply_);
  }
  void Wait(Clock::time_point end) const {
    if (reply_ != nullptr) reply_->Wait(end);
  }

 private:
  const AnswerSlot slot_;
  std::shared_ptr<WaitingReply> reply_;
};

// Has a reply that exists before the call. A direct server settles that one, too, since its
// callable may destroy the client. Without a reply, the queue of the client is closed.
class ReplyOffer final : public Offer {
 public:
  ReplyOffer(const AnswerType& its_type, ReplyOwner reply)
      : Offer(its_type, nullptr, false), reply_(std::move(reply)) {}
  Reply& reply() override { return reply_.get() != nullptr ? *reply_.get() : Offer::reply(); }
  ReplyOwner Take() override { return std::move(reply_); }

 private:
  ReplyOwner reply_;
};

struct QueuedOffer final : Offer {
  QueuedOffer(const AnswerType& its_type, void* optional) : Offer(its_type, optional, false) {}
};

// Calls the server's function, and takes the answer of a server without a handle.
// The bridge contains and logs a std::exception.
void Ask(const ServerFunction& serve, const std::any& request, Offer& offer) {
  try {
    std::any response(static_cast<Offer*>(&offer));
    serve(request, response);
    if (!response.has_value() || std::any_cast<Offer*>(&response) != nullptr) return;
    if (response.type() != *offer.type.type) {
      throw TypeMismatch("answer", response.type(), "client", *offer.type.type);
    }
    offer.reply().Settle(offer.type.take, &response);
  } catch (const std::exception&) {
    throw;
  } catch (...) {
    throw std::runtime_error("the server, or its answer, threw what is no std::exception");
  }
}

void CallNow(const Control& control, const std::any& request, Offer& offer) {
  struct Asking {
    const std::any& request;
    Offer& offer;
  } const asking{request, offer};
  // A reference only, so that the bridge's std::function needs no allocation.
  Bridge().Call(control, [&asking](const ServerFunction& serve) {
    Ask(serve, asking.request, asking.offer);
  });
}

// A call in the bridge's queue. It has no answer if this is destroyed without one.
struct QueuedCall {
  QueuedCall(std::any&& its_request, const AnswerType& type, Function<> callable)
      : request(std::move(its_request)),
        finish(std::move(callable)),
        offer(type, finish.answer()) {}
  ~QueuedCall() { finish(); }
  QueuedCall(const QueuedCall&) = delete;
  QueuedCall& operator=(const QueuedCall&) = delete;

  const std::any request;
  Function<> finish;
  QueuedOffer offer;
};

}  // namespace

struct ClientState : Record {
  ClientState(const Endpoint& endpoint, std::shared_ptr<CallQueue> its_calls)
      : Record("Client", endpoint.name, endpoint.module),
        calls{std::move(its_calls)},
        participant(endpoint.name, bridge::BridgeModule::Service, endpoint.type),
        listed(calls.queue == nullptr ? static_cast<Record&>(*this) : *calls.queue) {}

  struct Closer {
    ~Closer() {
      if (queue != nullptr) queue->Close();
    }
    const std::shared_ptr<CallQueue> queue;  // null: only blocking calls
  };
  const Closer calls;
  const Participant participant;
  const Listed listed;
};

void Destroyer::operator()(ClientState* state) const { delete state; }

Owned<ClientState> MakeClient(const Endpoint& endpoint, const Place& place) {
  KeepLoadedIfQueuedByBridge(endpoint);
  std::shared_ptr<CallQueue> calls;
  if (auto strand = StrandAt(place, endpoint)) {
    calls =
        std::make_shared<CallQueue>("Client", endpoint.name, endpoint.module, std::move(strand));
  }
  return Owned<ClientState>(new ClientState(endpoint, std::move(calls)));
}

void CallAndWait(const ClientState& client, const std::any& request, const AnswerType& type,
                 void* answer, std::chrono::milliseconds limit) {
  const Section section("Call", client.name);
  WaitingOffer offer(type, answer);
  // Without a limit, no clock is read.
  const auto end = limit.count() < 0 ? Clock::time_point::max() : Deadline(limit);
  CallNow(client.participant.control, request, offer);
  offer.Wait(end);
}

void CallAndReply(const ClientState& client, const std::any& request, const AnswerType& type,
                  Function<> callable) {
  const auto& queue = client.calls.queue;
  if (queue == nullptr) {
    throw std::logic_error("a call with a callable needs a client that is queued or has an inbox");
  }
  const Section section("Call", client.name);
  ReplyOffer offer(type, queue->Add(std::make_shared<PendingCall>(queue, std::move(callable))));
  CallNow(client.participant.control, request, offer);
}

void CallQueued(const ClientState& client, std::any&& request, const AnswerType& type,
                Function<> callable) {
  const Section section("Call", client.name);
  const auto call = std::make_shared<QueuedCall>(std::move(request), type, std::move(callable));
  Bridge().Call(client.participant.control,
                [call](const ServerFunction& serve) { Ask(serve, call->request, call->offer); });
}

}  // namespace zorvix::detail
