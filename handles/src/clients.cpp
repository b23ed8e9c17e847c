// Clients of services.
#include <zorvix/detail/library.h>

#include <any>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include "call_queue.h"
#include "endpoint.h"
#include "inbox.h"
#include "sync.h"
#include "waiting_reply.h"
#include "waits.h"

namespace zorvix::detail {
namespace {

// Has a reply that exists before the call. A direct server settles that one, too, since its
// callable may destroy the client. Without a reply, the queue of the client is closed.
class ReplyOffer final : public Offer {
 public:
  ReplyOffer(const AnswerType& its_type, const char* its_client, ReplyOwner reply)
      : Offer(its_type, its_client, Caller::kContinues), reply_(std::move(reply)) {}

 private:
  void Write(const Outcome& outcome) override { reply_.Settle(outcome); }
  ReplyOwner Share() override { return std::move(reply_); }

  ReplyOwner reply_;
};

// Lets the server answer, and takes the answer of a server without a handle.
void TakeAnswer(const ServerFunction& serve, const std::any& request, Offer& offer) {
  std::any response(static_cast<Offer*>(&offer));
  serve(request, response);
  if (!response.has_value() || std::any_cast<Offer*>(&response) != nullptr) {
    offer.Settle(NoAnswer(Why::Unknown));
    return;
  }
  if (response.type() != *offer.type.type) {
    offer.Settle(NoAnswer(Why::WrongType));
    throw TypeMismatch("answer", {"server", response.type(), nullptr},
                       {"client", *offer.type.type, offer.client});
  }
  offer.Settle({offer.type.take, &response, {}});
}

// The bridge contains and logs a std::exception.
void Ask(const ServerFunction& serve, const std::any& request, Offer& offer) {
  try {
    TakeAnswer(serve, request, offer);
  } catch (const std::exception&) {
    offer.Settle(NoAnswer(Why::Threw));
    throw;
  } catch (...) {
    offer.Settle(NoAnswer(Why::Threw));
    throw std::runtime_error("the server, or its answer, threw what is no std::exception");
  }
}

void CallNow(const Control& control, const std::any& request, Offer& offer) {
  struct Asking {
    const std::any& request;
    Offer& offer;
  } const asking{request, offer};
  // A reference only, so that the bridge's std::function needs no allocation.
  const auto ask = [&asking](const ServerFunction& serve) {
    Ask(serve, asking.request, asking.offer);
  };
  const bool has_server = !IsExiting(control->name) && Bridge().Call(control, ask);
  if (!has_server) offer.Settle(NoAnswer(Why::NoServer));
}

// A call in the bridge's queue. Its function is invoked when this is destroyed.
class QueuedCall final : public Offer, public std::enable_shared_from_this<QueuedCall> {
 public:
  QueuedCall(std::any&& request, const AnswerType& its_type, const char* its_client,
             Function<> finish)
      : Offer(its_type, its_client, Caller::kContinues),
        request_(std::move(request)),
        finish_(std::move(finish)) {
    Set(Why::Dropped);  // unless it begins
  }
  ~QueuedCall() { finish_(); }

  // Says why there is no answer so far.
  void Set(Why why) { WriteOutcome(finish_.answer(), NoAnswer(why)); }
  void Begin(const ServerFunction& serve) { Ask(serve, request_, *this); }

 private:
  // Of a server that answers later.
  class LateReply final : public SharedReply {
   public:
    explicit LateReply(std::shared_ptr<QueuedCall> call) : call_(std::move(call)) {}
    void Settle(const Outcome& outcome) override {
      if (is_settled_.exchange(true)) return;
      const auto call = std::move(call_);
      call->Write(outcome);
    }

   private:
    Atomic<bool> is_settled_{false};
    std::shared_ptr<QueuedCall> call_;
  };

  void Write(const Outcome& outcome) override { WriteOutcome(finish_.answer(), outcome); }
  ReplyOwner Share() override {
    return ReplyOwner(std::make_shared<LateReply>(shared_from_this()));
  }

  const std::any request_;
  Function<> finish_;
};

}  // namespace

struct ClientState : Record {
  ClientState(const Endpoint& endpoint, const std::type_info& request,
              const std::type_info& response, std::shared_ptr<CallQueue> its_calls)
      : Record("Client", endpoint.name, endpoint.module),
        calls{std::move(its_calls)},
        record(calls.queue == nullptr ? static_cast<Record&>(*this) : *calls.queue),
        participant(endpoint.name, bridge::BridgeModule::Service, endpoint.type) {
    record.message_type = &request;
    record.response_type = &response;
    record.participant = &participant;
    listed.emplace(record);
  }

  struct Closer {
    ~Closer() {
      if (queue != nullptr) queue->Close();
    }
    const std::shared_ptr<CallQueue> queue;  // null: only blocking calls
  };
  const Closer calls;
  Record& record;  // the one that is listed
  const Participant participant;
  std::optional<Listed> listed;
};

void Destroyer::operator()(ClientState* state) const { delete state; }

Owned<ClientState> MakeClient(const Endpoint& endpoint, const std::type_info& request,
                              const std::type_info& response, const Place& place, KeepLast keep) {
  CheckedDepth(keep);
  KeepLoadedIfQueuedByBridge(endpoint);
  std::shared_ptr<CallQueue> calls;
  if (auto strand = StrandAt(place, endpoint)) {
    calls = std::make_shared<CallQueue>(endpoint, std::move(strand), keep);
  }
  return Owned<ClientState>(new ClientState(endpoint, request, response, std::move(calls)));
}

void CallAndWait(ClientState& client, const std::any& request, const AnswerType& type,
                 const AnswerSlot& slot, Timeout timeout) {
  const Section section("Call", client.name);
  WaitingOffer offer(type, slot, client.name, &client.record);
  const auto end = Deadline(timeout);
  client.record.sent.Add();
  CallNow(client.participant.control, request, offer);
  offer.Wait(end);
}

void CallAndReply(ClientState& client, const std::any& request, const AnswerType& type,
                  Timeout timeout, Function<> callable) {
  const auto& queue = client.calls.queue;
  if (queue == nullptr) {
    throw std::logic_error("a call with a callable needs a client that is queued or has an inbox");
  }
  if (!timeout.IsForever() && queue->strand().IsDrainedByTasks()) {
    throw std::logic_error("a call with a timeout and a callable needs a client with an inbox");
  }
  const Section section("Call", client.name);
  client.record.sent.Add();
  ReplyOwner reply;
  const auto end = Deadline(timeout);
  if (!queue->Add(std::move(callable), end, reply)) return;
  ReplyOffer offer(type, client.module, std::move(reply));
  CallNow(client.participant.control, request, offer);
}

void CallQueued(ClientState& client, std::any&& request, const AnswerType& type,
                Function<> callable) {
  const Section section("Call", client.name);
  client.record.sent.Add();
  const auto call =
      std::make_shared<QueuedCall>(std::move(request), type, client.module, std::move(callable));
  const auto begin = [call](const ServerFunction& serve) { call->Begin(serve); };
  const bool has_server =
      !IsExiting(client.name) && Bridge().Call(client.participant.control, begin);
  if (!has_server) call->Set(Why::NoServer);
}

bool WaitForServer(const ClientState& client, Timeout timeout) {
  const auto& queue = client.calls.queue;
  const bool is_refused =
      timeout.IsForever() && queue != nullptr && queue->strand().IsDrainedByThisThread();
  const auto end = Deadline(is_refused ? Timeout(Clock::duration::zero()) : timeout);
  bool has_server = false;
  const auto wait = [&](Clock::time_point until) {
    has_server = WaitForServerOf(client.participant, until);
    return has_server;
  };
  WaitAndLog(end, wait, [&](int seconds, auto) {
    LogWaiting("a client waits for a server", client, seconds);
  });
  if (is_refused && !has_server) {
    BRIDGE_LOG(bridge::kLogError,
               "a callable waits without limit for a server, and nothing else can be invoked "
               "meanwhile, name: %s",
               client.name.c_str());
  }
  return has_server;
}

}  // namespace zorvix::detail
