// Typed handles for the bridge. A handle registers in its constructor and unregisters in its
// destructor.
//
//   #include <zorvix/typed.h>
//
//   inline constexpr zorvix::Topic<float> kLevels{"levels"};  // in a header that modules share
//
//   int main() {
//     float shown = 0;
//     const zorvix::Subscriber show(kLevels, [&](float level) { shown = level; });
//     zorvix::Publisher(kLevels).Publish(0.5f);
//     return shown == 0.5f ? 0 : 1;
//   }
//
// - topic.h, name.h: Topic, Service, EndpointName. What modules agree on.
// - publisher.h, subscriber.h: Publisher, Subscriber. Messages.
// - client.h, server.h, answer.h: Client, Server, Answer, Reply. Calls.
// - state.h: State, Holder, Watcher. Values of which everybody has the latest.
// - presence.h: Presence. How many counterparts there are.
// - delivery.h, inbox.h, workers.h: Delivery, KeepLast, KeepAll, Inbox, InboxThread, Workers. Where
//   callables are invoked.
// - timeout.h: Timeout. inspect.h, which this header does not include: what all handles do.
//
// Where callables are invoked, for each kind of handle:
//
//               | direct (default)         | Delivery::Queued        | an inbox
//   ------------+--------------------------+-------------------------+----------------
//   Subscriber  | on the publisher's       | one at a time, where    | one at a time,
//   Server      | on the caller's          | the bridge's queue is   | in drains of
//   Watcher     | on the setter's, first   | drained: Workers or     | the inbox
//               | on the constructor's     | Zorvix::SpinOnce        |
//   Presence    | on the thread of a       |                         |
//               | constructor, destructor  |                         |
//   Client      | (only blocking calls)    |                         |
//
// Subscribers, servers and clients that are queued or have an inbox also take a KeepLast. Handles
// match endpoints that are registered through zorvix.h under the same name and topic kind.
//
// Threads: any thread may use a handle, and so may a callable. The callable of a direct subscriber
// or server may be entered by several threads at the same time; that of a watcher or presence is
// invoked one at a time, even directly. A callable may be entered before the constructor of its
// handle has returned. It must return on the thread that invoked it, which matters to fibers. The
// child of a fork must not use handles, unless the parent had one thread.
//
// In the comments, "blocks" means that a function waits for a callable or for another thread's
// action; all functions may wait for a mutex that is held for a short time. "REQUIRES" is what the
// caller has to ensure; where a violation is noticed, the comment says so.
//
// Memory: what a thread did before it published, set, called or posted happens before the callable
// that is invoked with it, and before Watcher::Latest returns the value. What a server did before
// it answered happens before the caller has the answer. What a callable did happens before the
// drain that has invoked it returns, and before its handle's destructor returns on another thread.
//
// Exceptions: a std::exception that a callable throws is caught and logged. Any other exception
// propagates to the code that published, set or drained, and ends the process on a worker or an
// InboxThread; other receivers of the same message may not get it then. A call ends with Why::Threw
// either way, and what a direct server throws does not leave it. If a message cannot be copied for
// one subscriber, that is logged, and the others get it. A constructor that throws has no effect;
// it throws what allocations throw, and what its comment says. A destructor never throws; if there
// is no memory to unregister a name, the name stays registered, with a WARN, and nothing is
// delivered to it.
//
// Lifetime: once the destructor of a handle has returned, its callable is destroyed, is not running
// on any other thread and is not invoked again, not even for messages that were published or queued
// earlier. The destructor therefore blocks while another thread is inside the callable; after one
// second it logs a WARN with the endpoint's name. Do not destroy a handle while holding a lock that
// its callable takes, and do not let two callables destroy each other's handles. A callable may
// destroy its own handle: it is destroyed itself when it has returned. Destructors of messages and
// callables may use handles, but those of messages of Async and SignleAsync topics must not.
//
// Moving: a handle may be moved, not copied. Move assignment destroys the old registration, as the
// destructor does. No other thread may be inside a function of a handle that is moved or destroyed.
// A moved-from handle does nothing.
//
// Unloading: once all handles and inboxes of a module have been destroyed, dlclose may unload it.
// Where others still need code of the module, the library keeps it loaded, and logs why. It cannot
// see code inside a message, such as a std::function: destroy such messages before.
//
// Exit: the bridge is destroyed at process exit, before every static object that existed when the
// bridge was first used. Destroy handles before. A function-local static handle in a function that
// has used the bridge is destroyed early enough; a global std::optional that main fills is not,
// unless main empties it.
#ifndef ZORVIX_TYPED_H_
#define ZORVIX_TYPED_H_

#include <zorvix/answer.h>
#include <zorvix/client.h>
#include <zorvix/delivery.h>
#include <zorvix/inbox.h>
#include <zorvix/name.h>
#include <zorvix/presence.h>
#include <zorvix/publisher.h>
#include <zorvix/server.h>
#include <zorvix/state.h>
#include <zorvix/subscriber.h>
#include <zorvix/timeout.h>
#include <zorvix/topic.h>
#include <zorvix/workers.h>

#endif  // ZORVIX_TYPED_H_
