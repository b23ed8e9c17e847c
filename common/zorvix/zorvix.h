// Zorvix: an in-process message bridge between modules that do not know each other.
//
// A module describes an endpoint by a Control (name, module, type) and registers it. Endpoints meet
// when all three are equal. Topics carry a message from a publisher to every subscriber; services
// carry a client's request to the one server. Sync endpoints are served at once on the caller's
// thread; Async and SignleAsync ones from a bounded queue that the host drains (RunOneceStep,
// SpinOnce) or worker threads do (Spin, StopSpin).
//
// Threads: every operation may be called from any thread, also from inside a callback, unless its
// comment says otherwise. No lock of the bridge is held while a callback runs.
//
// Ownership: users own their Controls, the bridge keeps only weak references to them. The bridge
// shares the callbacks that are registered, and a publication, call or queued task shares its
// callback until it has run, so unregistering does not cancel what is under way. Callbacks are kept
// under the address of their Control: all must be unregistered before it goes, or an endpoint that
// is allocated there later gets them.
//
// Callbacks may call every operation. One that throws a std::exception is logged and contained;
// anything else it throws travels on to whoever ran it, and ends the process on a Spin worker.
// Destructors of Controls, of registered callbacks and of queued tasks (with their messages) may
// run under a lock of the bridge and must not call it.
//
// Failures are reported as log lines only, under the tag "[BRIDGE]"; the bridge throws nothing of
// its own.
//
// The bridge is destroyed at process exit. Destructors of static objects that are older than it run
// later and must not call it. All modules must be compiled with the same version of this header.
#ifndef ZORVIX_ZORVIX_H_
#define ZORVIX_ZORVIX_H_

// Major * 10000 + minor * 100 + patch.
#define ZORVIX_VERSION 20000

#include <algorithm>
#include <any>
#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// libc++ compares the types of a std::any by address unless told otherwise, and each module has its
// own copy of a type's identity. A message breaks no build with -Werror: g++ shows a note, clang a
// warning that stays one.
#if defined(_LIBCPP_VERSION) && _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION != 2
#pragma message( \
    "zorvix: compile every file with -D_LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION=2, or std::any_cast fails between modules")
#endif

#define ZORVIX_EXPORT __attribute__((visibility("default")))

// Which lock guards a member and which locks a function requires, for clang's -Wthread-safety. Only
// libc++'s std::mutex and std::lock_guard carry attributes, and only with its macro.
#if defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS) && __has_attribute(guarded_by)
#define ZORVIX_GUARDED_BY(mutex) __attribute__((guarded_by(mutex)))
#define ZORVIX_REQUIRES(...) __attribute__((requires_capability(__VA_ARGS__)))
#define ZORVIX_NO_THREAD_SAFETY_ANALYSIS __attribute__((no_thread_safety_analysis))
#else
#define ZORVIX_GUARDED_BY(mutex)
#define ZORVIX_REQUIRES(...)
#define ZORVIX_NO_THREAD_SAFETY_ANALYSIS
#endif

// From liblog, declared here so that this header needs no other.
extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...)
    __attribute__((__format__(__printf__, 3, 4)));

extern "C" ZORVIX_EXPORT bool ZorvixIsSpin();

namespace bridge {

// Priorities of the Android log.
constexpr int kLogInfo = 4;
constexpr int kLogWarn = 5;
constexpr int kLogError = 6;

// A longer message is cut at one character less.
constexpr std::size_t kLogBufferSize = 1024;

// Writes one line to the Android log; called through BRIDGE_LOG.
// Hidden, so that each module has its own copy and can be unloaded.
inline __attribute__((visibility("hidden"), __format__(__printf__, 4, 5))) void WriteLog(
    int priority, const char* path, int line, const char* format, ...) {
  char message[kLogBufferSize] = {};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(message, sizeof message, format, arguments);
  va_end(arguments);
  __android_log_print(priority, "[BRIDGE]", "%s:%d: %s", path, line, message);
}

// BRIDGE_LOG(priority, format, ...) logs a printf-formatted message with the path and line of the
// statement. The format is checked at compile time; nothing is allocated.
#define BRIDGE_LOG(priority, ...) ::bridge::WriteLog(priority, __FILE__, __LINE__, __VA_ARGS__)

enum class BridgeModule : std::int32_t { Topic = 0, Service = 1 };

enum class BridgeType : std::int32_t {
  Sync = 0,         // callbacks run at once on the calling thread
  Async = 1,        // callbacks run from the queue
  SignleAsync = 2,  // as Async; its first publication or call removes who receives, run or lost
};

// Describes an endpoint. Must not change once registered.
struct Control {
  std::string name;  // any bytes
  BridgeModule bridge_module = BridgeModule::Topic;
  BridgeType bridge_type = BridgeType::Sync;
};

// Returns what follows the name in a real name, such as "/Topic/Async".
// Logs ERROR for a module or type out of range, which gives the text "Unknown".
inline __attribute__((visibility("hidden"))) std::string_view RealNameSuffix(
    const Control& control) {
  static constexpr std::string_view kSuffixes[3][4] = {
      {"/Topic/Sync", "/Topic/Async", "/Topic/SignleAsync", "/Topic/Unknown"},
      {"/Service/Sync", "/Service/Async", "/Service/SignleAsync", "/Service/Unknown"},
      {"/Unknown/Sync", "/Unknown/Async", "/Unknown/SignleAsync", "/Unknown/Unknown"}};
  // As unsigned numbers, so that negative values are out of range like those that are too large.
  const auto module = std::min(static_cast<std::uint32_t>(control.bridge_module), 2u);
  const auto type = std::min(static_cast<std::uint32_t>(control.bridge_type), 3u);
  if (module == 2) BRIDGE_LOG(kLogError, "Unknown BridgeModule!");
  if (type == 3) BRIDGE_LOG(kLogError, "Unknown BridgeType!");
  return kSuffixes[module][type];
}

using Message = std::any;
using SubscriberCallback = std::shared_ptr<std::function<void(const Message&)>>;
using ServerCallback = std::shared_ptr<std::function<void(const std::any&, std::any&)>>;
using RequestCallback = std::function<void(const std::function<void(const std::any&, std::any&)>&)>;
using Task = std::function<void()>;

// The bridge of the process. Controls must not be empty pointers, nor callbacks where registered:
// each operation logs that and changes nothing.
//
// Register operations replace `control` by the object that is registered under its name already, if
// there is one: all participants of a name hold one object, and only that object finds subscribers
// and servers. Keep the pointer they leave and pass it to the matching unregister operation, which
// empties it. The last participant to leave removes the name.
class Zorvix {
 public:
  // Returns the one instance, built by the first call and destroyed at process exit. What is queued
  // then is destroyed unrun; workers must have been stopped before.
  ZORVIX_EXPORT static Zorvix& GetInstance();

  Zorvix(const Zorvix&) = delete;
  Zorvix& operator=(const Zorvix&) = delete;

  // Returns name/module/type, such as "camera/Topic/Async". `control` must not be empty.
  // Logs as RealNameSuffix. Hidden, so that each module has its own copy and can be unloaded.
  __attribute__((visibility("hidden"))) static std::string GetRealName(
      const std::shared_ptr<const Control>& control);

  // Joins a topic as publisher.
  // Logs WARN when all earlier owners of the name dropped it without unregistering.
  ZORVIX_EXPORT void RegisterPublisher(std::shared_ptr<const Control>& control);

  // Leaves a topic as publisher and empties `control`.
  // Logs INFO when the name is removed, ERROR when it was not registered.
  ZORVIX_EXPORT void UnregisterPublisher(std::shared_ptr<const Control>& control);

  // Joins a topic and appends `callback` to its subscribers, also if it is among them already.
  // Logs as RegisterPublisher.
  ZORVIX_EXPORT void RegisterSubscriber(std::shared_ptr<const Control>& control,
                                        const SubscriberCallback& callback);

  // Leaves a topic, empties `control` and removes every subscriber whose function object has the
  // address `callback_handle`: (unsigned long)callback.get(). An unknown handle passes in silence.
  // A publication under way may still run the callback, and queued tasks will.
  // Logs INFO when the last subscriber, or the name with all of them, is removed and when there was
  // none; ERROR when the name was not registered.
  ZORVIX_EXPORT void UnregisterSubscriber(std::shared_ptr<const Control>& control,
                                          unsigned long callback_handle);

  // Delivers `message` to the topic's subscribers in the order of their registration: Sync runs
  // them all with the one message and leaves it with the caller; Async and SignleAsync queue one
  // task for each and return. The first of these tasks takes the message, the others get an empty
  // one, and the caller's is empty afterwards. SignleAsync drops the subscribers it has queued for.
  // Returns false when nothing could be delivered: no subscriber, no value in `message`, or a type
  // out of range; that is logged. Sync blocks for as long as the callbacks do; a full queue does
  // not block but loses its oldest task, of whatever endpoint, with a WARN.
  ZORVIX_EXPORT bool Publish(const std::shared_ptr<const Control>& control, Message&& message);

  // Removes a receiver of a SignleAsync endpoint: the topic's `callback` or the service's server.
  // Does nothing for other types. Publish and Call do the same under the locks of the tables; it
  // takes none, so users must not call it while another thread uses the bridge.
  // Logs ERROR for an empty control, a module out of range and a topic without a callback.
  ZORVIX_EXPORT void SignleAsyncAutoRemove(const std::shared_ptr<const Control>& control,
                                           const SubscriberCallback& callback);

  // Joins a service as client. Logs as RegisterPublisher.
  ZORVIX_EXPORT void RegisterClient(std::shared_ptr<const Control>& control);

  // Leaves a service as client and empties `control`. Logs as UnregisterPublisher.
  ZORVIX_EXPORT void UnregisterClient(std::shared_ptr<const Control>& control);

  // Joins a service and makes `callback` its one server.
  // Logs as RegisterPublisher, and WARN when it replaces another server.
  ZORVIX_EXPORT void RegisterServer(std::shared_ptr<const Control>& control,
                                    const ServerCallback& callback);

  // Leaves a service, empties `control` and removes the server, whatever the number.
  // Calls that are queued or under way still reach it.
  // Logs INFO what was removed, ERROR when the name was not registered.
  ZORVIX_EXPORT void UnregisterServer(std::shared_ptr<const Control>& control, unsigned long);

  // Runs `request` with the service's server function, which it calls with a request and a response
  // of its own: Sync at once; Async and SignleAsync from the queue, so `request` must own all it
  // uses. SignleAsync removes the server it has queued for. Failures of the server pass through
  // `request` and are logged with the address of the server's function object.
  // Returns false when there is no server or the type is out of range; that is logged.
  // Sync blocks for as long as `request` does; a full queue as in Publish. Servers are entered by
  // several threads at once.
  ZORVIX_EXPORT bool Call(const std::shared_ptr<const Control>& control, RequestCallback&& request);

  // Runs the oldest queued task on this thread, and lets through what it throws.
  // Returns false, without taking a lock, when the queue was empty.
  // Logs INFO the number of tasks left.
  ZORVIX_EXPORT bool RunOneceStep();

  // Runs queued tasks on this thread until the queue is empty.
  ZORVIX_EXPORT void SpinOnce();

  // Runs `workers` threads that drain the queue. Blocks until StopSpin has been called and they
  // have left. May run on several threads at once: the workers share one queue and one stop.
  // Logs INFO when it is done, and twice each time a worker wakes.
  // Clears a stop that was requested before, so that workers that have not seen it go on.
  // Throws what allocating and starting threads throws; a failure after the first has started ends
  // the process.
  ZORVIX_EXPORT void Spin(unsigned long workers);

  // Tells all workers to leave once the queue is empty. Blocks until they have, for 0.2 s by the
  // system clock at most, after an earlier StopSpin that is still waiting.
  // Does not wait for workers that have not begun, and a Spin that begins later clears the stop: to
  // end one for certain, repeat this until it has returned.
  // Logs INFO at each look and WARN at the timeout, as always when a worker's own task calls it.
  ZORVIX_EXPORT void StopSpin();

 private:
  friend bool ::ZorvixIsSpin();

  Zorvix() = default;
  ~Zorvix() = default;

  void RegisterControl(std::shared_ptr<const Control>& control, const std::string& real_name)
      ZORVIX_REQUIRES(controls_mutex_);

  // Queues one task for each callback: the first gets the message, the others an empty one. The
  // name is for log lines.
  void PostToSubscribers(const std::vector<SubscriberCallback>& callbacks, std::string name,
                         Message&& message);

  // What a delivery to a SignleAsync endpoint removes. No name comes or goes meanwhile.
  void AutoRemoveSubscribers(const Control& control,
                             const std::vector<SubscriberCallback>& callbacks)
      ZORVIX_REQUIRES(controls_mutex_, subscribers_mutex_);
  void AutoRemoveServer(const Control& control) ZORVIX_REQUIRES(controls_mutex_, servers_mutex_);

  // Never blocks for room: a full queue loses its oldest task. The caller notifies events_cv_.
  void PostEvent(Task&& task);

  void SpinWorker();
  // The only writers of spin_stop_, which is read without a lock.
  void ClearStop() ZORVIX_REQUIRES(spin_mutex_);
  void RequestStop() ZORVIX_REQUIRES(spin_mutex_, events_mutex_);

  // Lock order: controls_mutex_, then subscribers_mutex_, then servers_mutex_; spin_mutex_, then
  // events_mutex_. events_mutex_ is never taken while a table is locked.
  std::mutex controls_mutex_;
  std::unordered_map<std::string, std::weak_ptr<const Control>> controls_  // by real name
      ZORVIX_GUARDED_BY(controls_mutex_);

  // A topic's list is never empty and never changes: it is replaced, so that a publication shares
  // it with the table instead of copying it.
  std::mutex subscribers_mutex_;
  std::unordered_map<const Control*, std::shared_ptr<const std::vector<SubscriberCallback>>>
      subscribers_ ZORVIX_GUARDED_BY(subscribers_mutex_);

  std::mutex servers_mutex_;
  std::unordered_map<const Control*, ServerCallback> servers_ ZORVIX_GUARDED_BY(servers_mutex_);

  std::mutex events_mutex_;
  std::deque<Task> events_ ZORVIX_GUARDED_BY(events_mutex_);
  // Size of events_, written under its lock, for a look without it.
  std::atomic<std::size_t> events_count_{0};
  std::condition_variable events_cv_;

  std::mutex spin_mutex_;  // keeps Spin from starting while StopSpin waits
  std::atomic<bool> spin_stop_{false};
  std::atomic<std::int32_t> spin_count_{0};  // workers running
};

inline std::string Zorvix::GetRealName(const std::shared_ptr<const Control>& control) {
  const auto suffix = RealNameSuffix(*control);
  std::string real_name;
  real_name.reserve(control->name.size() + suffix.size());
  real_name += control->name;
  real_name += suffix;
  return real_name;
}

}  // namespace bridge

#endif  // ZORVIX_ZORVIX_H_
