// Servers of services.
#include <zorvix/detail/library.h>

#include <any>
#include <memory>
#include <string>
#include <typeinfo>
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

// Calls `serve(offer)` with the offer of the client, or for a client without a handle, which
// expects the answer in the response, with one that waits for it. `gate` is that of the server.
template <typename Function>
void Answer(std::any& response, const AnswerType& answer_type, Gate& gate, Module& module,
            const std::string& service, const Function& serve) {
  if (Offer* const offer = FindOffer(response)) {
    serve(*offer);
    return;
  }
  {
    const Gate::Pass pass(gate);
    if (!pass.admitted()) return;
    KeepLoadedForAnswer(module, service);
  }
  WaitingOffer plain(answer_type, {nullptr, nullptr, &response}, service, nullptr);
  serve(plain);
  plain.Wait(kNever);
}

void AnswerDirectly(Direct& direct, const std::type_info& answer_type, const std::any& any,
                    Offer& offer) {
  offer.server = &direct;
  const Gate::Pass pass(direct.gate());
  if (!pass.admitted()) {
    offer.Settle(NoAnswer(Why::Destroyed));
    return;
  }
  try {
    const void* const request = direct.Find(any);
    if (request == nullptr) {
      direct.Reject("request", {"client", any.type(), offer.client},
                    {"server", *direct.type.type, direct.module});
    }
    if (*offer.type.type != answer_type) {
      direct.Reject("answer", {"server", answer_type, direct.module},
                    {"client", *offer.type.type, offer.client});
    }
    direct.Invoke(request, &offer);
  } catch (const TypeMismatch&) {
    offer.Settle(NoAnswer(Why::WrongType));
    throw;
  }
}

void AnswerInStrand(MessageQueue& queue, const std::any& request, Offer& offer) {
  offer.server = &queue;
  if (offer.caller == Caller::kWaits && queue.strand().IsDrainedByThisThread()) {
    BRIDGE_LOG(bridge::kLogError,
               "a callable calls a server that could only answer after that callable returns, "
               "name: %s",
               queue.name.c_str());
    offer.Settle(NoAnswer(Why::WouldDeadlock));
    return;
  }
  queue.PushRequest(request, offer);
}

}  // namespace

Owned<ServerState> Serve(const Endpoint& endpoint, const MessageType& type,
                         const std::type_info& answer_type, Callable callable, const Place& place,
                         KeepLast keep) {
  CheckedDepth(keep);
  KeepLoadedIfQueuedByBridge(endpoint);
  const AnswerType plain_answer = {&answer_type, nullptr};
  if (auto strand = StrandAt(place, endpoint)) {
    const auto queue =
        std::make_shared<MessageQueue>("Server", endpoint.name, endpoint.module, std::move(strand),
                                       type, std::move(callable), keep, &answer_type);
    return Owned<ServerState>(new ServerState(
        queue, endpoint,
        [queue, plain_answer, &module = endpoint.module](const std::any& request, auto& response) {
          Answer(response, plain_answer, queue->gate(), module, queue->name,
                 [&](Offer& offer) { AnswerInStrand(*queue, request, offer); });
        },
        *queue));
  }
  const auto direct = std::make_shared<Direct>("Server", endpoint, type, std::move(callable));
  direct->response_type = &answer_type;
  return Owned<ServerState>(new ServerState(
      direct, endpoint,
      [direct, plain_answer, &module = endpoint.module](const std::any& request, auto& response) {
        Answer(response, plain_answer, direct->gate(), module, direct->name,
               [&](Offer& offer) { AnswerDirectly(*direct, *plain_answer.type, request, offer); });
      },
      *direct));
}

}  // namespace zorvix::detail
