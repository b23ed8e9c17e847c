// Servers of services.
#include <zorvix/detail/library.h>

#include <chrono>
#include <utility>

#include "direct.h"
#include "endpoint.h"
#include "inbox.h"
#include "waiting_reply.h"

namespace zorvix::detail {

struct ServerState : Registered<ServerRegistration> {
  using Registered::Registered;
};

void Destroyer::operator()(ServerState* state) const { delete state; }

namespace {

// Returns the offer of a client, or null if the client has no handle.
Offer* FindOffer(const std::any& response) {
  auto* const found = std::any_cast<Offer*>(&response);
  return found == nullptr ? nullptr : *found;
}

// The answer for a client without a handle is destroyed by code of the server's module.
void KeepLoadedForAnswer(Module& module, const std::string& service) {
  KeepLoaded(module, "a client without a handle has an answer of it", service);
}

ServerFunction ServeDirectly(const Endpoint& endpoint, const MessageType& type,
                             const std::type_info& answer_type, std::shared_ptr<Direct> direct) {
  return [direct = std::move(direct), &type, &answer_type, &module = endpoint.module](
             const std::any& any, std::any& response) {
    const Gate::Pass pass(direct->gate());
    if (!pass.admitted()) return;
    const void* const request = FindOrThrow(type, any, "request", "server");
    if (Offer* const offer = FindOffer(response)) {
      if (*offer->type.type != answer_type) {
        throw TypeMismatch("answer", answer_type, "client", *offer->type.type);
      }
      direct->Invoke(request, &offer->reply());
      return;
    }
    KeepLoadedForAnswer(module, direct->name);
    ImmediateReply plain({nullptr, &response});
    direct->Invoke(request, &plain);
  };
}

ServerFunction ServeInStrand(const Endpoint& endpoint, const std::type_info& answer_type,
                             std::shared_ptr<MessageQueue> queue) {
  return [queue = std::move(queue), &answer_type, &module = endpoint.module](
             const std::any& request, std::any& response) {
    Offer* const offer = FindOffer(response);
    const bool caller_waits = offer == nullptr || offer->caller_waits;
    if (caller_waits && queue->strand().IsDrainedByThisThread()) {
      BRIDGE_LOG(bridge::kLogError,
                 "a callable calls a server that could only answer after that callable returns, "
                 "name: %s",
                 queue->name.c_str());
      return;
    }
    if (offer != nullptr) {
      queue->PushRequest(request, offer->Take(), *offer->type.type);
      return;
    }
    // A client without a handle, which expects the answer in the response.
    {
      const Gate::Pass pass(queue->gate());
      if (!pass.admitted()) return;
      KeepLoadedForAnswer(module, queue->name);
    }
    const auto reply = std::make_shared<WaitingReply>(AnswerSlot{nullptr, &response});
    queue->PushRequest(request, ReplyOwner(reply), answer_type);
    reply->Wait(Deadline(std::chrono::milliseconds(-1)));
  };
}

}  // namespace

Owned<ServerState> Serve(const Endpoint& endpoint, const MessageType& type,
                         const std::type_info& answer_type, Callable callable, const Place& place,
                         KeepLast keep) {
  CheckedDepth(keep);
  KeepLoadedIfQueuedByBridge(endpoint);
  if (auto strand = StrandAt(place, endpoint)) {
    const auto queue =
        std::make_shared<MessageQueue>("Server", endpoint.name, endpoint.module, std::move(strand),
                                       type, std::move(callable), keep, &answer_type);
    return Owned<ServerState>(
        new ServerState(queue, endpoint, ServeInStrand(endpoint, answer_type, queue)));
  }
  const auto direct = std::make_shared<Direct>("Server", endpoint, type, std::move(callable));
  return Owned<ServerState>(
      new ServerState(direct, endpoint, ServeDirectly(endpoint, type, answer_type, direct)));
}

}  // namespace zorvix::detail
