// What the templates of the handles call in the library. Not for users.
#ifndef ZORVIX_DETAIL_LIBRARY_H_
#define ZORVIX_DETAIL_LIBRARY_H_

#include <zorvix/delivery.h>
#include <zorvix/detail/erasure.h>
#include <zorvix/timeout.h>
#include <zorvix/zorvix.h>

#include <any>
#include <memory>
#include <typeinfo>

namespace zorvix {

class Inbox;
struct Matched;

namespace detail {

// A pragma, since clang forgets the attribute of a namespace where the functions are defined.
#pragma GCC visibility push(default)

// Where a callable is invoked.
struct Place {
  Delivery delivery = Delivery::Direct;
  Inbox* inbox = nullptr;  // in place of the bridge's queue
};

// What a presence counts.
enum class Counterparts { kSubscribers, kServers, kHolders };

// Of one handle. Defined and destroyed in the library.
struct PublisherState;
struct SubscriberState;
struct ServerState;
struct ClientState;
struct HolderState;
struct WatcherState;
struct PresenceState;

struct Destroyer {
  void operator()(PublisherState*) const;
  void operator()(SubscriberState*) const;
  void operator()(ServerState*) const;
  void operator()(ClientState*) const;
  void operator()(HolderState*) const;
  void operator()(WatcherState*) const;
  void operator()(PresenceState*) const;
};
template <typename State>
using Owned = std::unique_ptr<State, Destroyer>;

Owned<PublisherState> MakePublisher(const Endpoint&, const std::type_info&, Audience);
bool Publish(PublisherState&, std::any&& message);

Owned<SubscriberState> Subscribe(const Endpoint&, const MessageType&, Callable, const Place&,
                                 KeepLast);

Owned<ServerState> Serve(const Endpoint&, const MessageType&, const std::type_info& response,
                         Callable, const Place&, KeepLast);

Owned<ClientState> MakeClient(const Endpoint&, const std::type_info& request,
                              const std::type_info& response, const Place&, KeepLast);
void CallAndWait(ClientState&, const std::any& request, const AnswerType&, const AnswerSlot&,
                 Timeout);
// The function is an Awaiting.
void CallAndReply(ClientState&, const std::any& request, const AnswerType&, Timeout, Function<>);
void CallQueued(ClientState&, std::any&& request, const AnswerType&, Function<>);
bool WaitForServer(const ClientState&, Timeout);

Owned<HolderState> MakeHolder(const Endpoint&, const std::type_info&);
// Takes `value`. Destroys it with `destroy`, or if that is null, frees its memory.
void Set(HolderState&, const void* value, void (*destroy)(const void*));

Owned<WatcherState> MakeWatcher(const Endpoint&, const std::type_info&, Callable, const Place&);
std::shared_ptr<const void> Latest(const WatcherState&);
std::shared_ptr<const void> WaitForValue(const WatcherState&, Timeout);

Owned<PresenceState> MakePresence(const Endpoint&, Counterparts, Callable, const Place&);
Matched Now(const PresenceState&);

#pragma GCC visibility pop

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_LIBRARY_H_
