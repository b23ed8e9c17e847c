// Zorvix: an in-process message bridge between modules that do not know each other.
//
// Publishers, subscribers, clients and servers are endpoints. A module describes an endpoint by a
// Control (name, topic or service, type) and registers it. Endpoints match when all three are
// equal. A topic delivers a publisher's message to every subscriber; a service passes a client's
// request to its server. Sync endpoints are served directly on the caller's thread. Async and
// SignleAsync endpoints are served from a bounded queue, which the host drains (RunOneceStep,
// SpinOnce) or worker threads drain (Spin, StopSpin).
//
// Threads: any thread and any callback may call every operation, unless its comment says otherwise.
// Callbacks run without a lock of the bridge, and several threads may run one at the same time.
//
// Ownership: users own Controls, the bridge holds weak pointers. Callbacks are shared with the
// bridge and with each delivery that is queued or in progress, so unregistering cancels none.
// Unregister callbacks before their Control is destroyed: a later one at its address gets them.
//
// Failures: the bridge logs them with the tag "[BRIDGE]" and throws nothing of its own. It catches
// and logs a callback's std::exception. Any other exception reaches the thread that runs the
// callback, and ends the process on a Spin worker.
//
// Destructors of Controls, of registered callbacks and of queued tasks and messages must not call
// the bridge, since they may run with its locks held. Nor must destructors that run at process exit
// after the bridge has been destroyed. Nor must the child of a fork, unless the parent had one
// thread: another one may have held a lock of the bridge, which stays locked in the child. Compile
// all modules with the same version of this header.
#ifndef ZORVIX_ZORVIX_H_
#define ZORVIX_ZORVIX_H_

// Major * 10000 + minor * 100 + patch.
#define ZORVIX_VERSION 50100

#if __cplusplus < 201703L
#error "zorvix: compile every file as C++17 or later (-std=c++17)"
#endif
// Without RTTI, std::any_cast fails between modules.
#ifndef __cpp_rtti
#error "zorvix: compile every file with RTTI (without -fno-rtti)"
#endif

#include <algorithm>
#include <any>
#include <atomic>
#include <condition_variable>
#include <cstdarg>
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

// By default libc++ compares the types of std::any by address, but each module has its own copy of
// a type's identity. A message, unlike a warning, does not fail with -Werror.
#if defined(_LIBCPP_VERSION) && _LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION != 2
#pragma message( \
    "zorvix: compile every file with -D_LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION=2, or std::any_cast fails between modules")
#endif

#define ZORVIX_EXPORT __attribute__((visibility("default")))
// Attributes for clang's -Wthread-safety, which needs libc++'s annotated std::mutex.
#if defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS) && __has_attribute(guarded_by)
#define ZORVIX_GUARDED_BY(mutex) __attribute__((guarded_by(mutex)))
#define ZORVIX_REQUIRES(...) __attribute__((requires_capability(__VA_ARGS__)))
#else
#define ZORVIX_GUARDED_BY(mutex)
#define ZORVIX_REQUIRES(...)
#endif

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...)
    __attribute__((__format__(__printf__, 3, 4)));  // from liblog
extern "C" ZORVIX_EXPORT bool ZorvixIsSpin();

namespace bridge {

constexpr int kLogInfo = 4;  // priorities of the Android log
constexpr int kLogWarn = 5;
constexpr int kLogError = 6;
constexpr std::size_t kLogBufferSize = 1024;  // of a message with its zero; the rest is cut off

// Use BRIDGE_LOG. Inline functions are hidden: each module can be unloaded with its own copies.
inline __attribute__((visibility("hidden"), __format__(__printf__, 4, 5))) void WriteLog(
    int priority, const char* path, int line, const char* format, ...) {
  char message[kLogBufferSize] = {};
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(message, sizeof message, format, arguments);
  va_end(arguments);
  __android_log_print(priority, "[BRIDGE]", "%s:%d: %s", path, line, message);
}

// Logs a printf message with the path and line of the statement. Does not allocate.
#define BRIDGE_LOG(priority, ...) ::bridge::WriteLog(priority, __FILE__, __LINE__, __VA_ARGS__)

enum class BridgeModule : std::int32_t { Topic = 0, Service = 1 };
enum class BridgeType : std::int32_t {
  Sync = 0,         // callbacks run directly on the calling thread
  Async = 1,        // callbacks run from the queue
  SignleAsync = 2,  // as Async; the first publication or call removes its receivers
};

// Describes an endpoint. Must not change while it is registered.
struct Control {
  std::string name;  // any bytes
  BridgeModule bridge_module = BridgeModule::Topic;
  BridgeType bridge_type = BridgeType::Sync;
};

// Returns the suffix of a real name, such as "/Topic/Sync". Logs ERROR for values out of range.
inline __attribute__((visibility("hidden"))) std::string_view RealNameSuffix(
    const Control& control) {
  static constexpr std::string_view kSuffixes[3][4] = {
      {"/Topic/Sync", "/Topic/Async", "/Topic/SignleAsync", "/Topic/Unknown"},
      {"/Service/Sync", "/Service/Async", "/Service/SignleAsync", "/Service/Unknown"},
      {"/Unknown/Sync", "/Unknown/Async", "/Unknown/SignleAsync", "/Unknown/Unknown"}};
  // As unsigned numbers, so that negative values are out of range, too.
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

// The bridge of the process. Operations log a null Control or callback and do nothing.
// All endpoints of a name share one Control. If the name has one already, a register operation
// sets `control` to it; deliveries find their receivers by its address. Pass the same pointer to
// the unregister operation, which sets it to null. The last one to unregister removes the name.
class Zorvix {
 public:
  // Returns the only instance. The first call constructs it. At process exit, tasks that are still
  // queued are destroyed without running; workers must have been stopped before.
  ZORVIX_EXPORT static Zorvix& GetInstance();
  Zorvix(const Zorvix&) = delete;
  Zorvix& operator=(const Zorvix&) = delete;

  // Returns the real name, such as "camera/Topic/Async". `control` must not be null.
  __attribute__((visibility("hidden"))) static std::string GetRealName(
      const std::shared_ptr<const Control>& control) {
    return std::string(control->name).append(RealNameSuffix(*control));
  }

  // Registers or unregisters a publisher of a topic. Logs WARN if earlier endpoints of the name
  // were destroyed unregistered, INFO if the name is removed, ERROR if it was not registered.
  ZORVIX_EXPORT void RegisterPublisher(std::shared_ptr<const Control>& control);
  ZORVIX_EXPORT void UnregisterPublisher(std::shared_ptr<const Control>& control);

  // Adds a subscriber. Registered twice, it is invoked twice. Logs as RegisterPublisher.
  ZORVIX_EXPORT void RegisterSubscriber(std::shared_ptr<const Control>& control,
                                        const SubscriberCallback& callback);

  // Removes every subscriber whose function object has the address `callback_handle`, that is
  // (unsigned long)callback.get(); an address that none of them has is ignored without a line. If
  // no endpoint is left, the name and all its subscribers are removed. Deliveries that are queued
  // or in progress still invoke them. Logs INFO if it removes the name or the last subscriber, or
  // if there was no subscriber, ERROR if the name was not registered.
  ZORVIX_EXPORT void UnregisterSubscriber(std::shared_ptr<const Control>& control,
                                          unsigned long callback_handle);

  // Delivers `message` to the topic's subscribers in the order of their registration. Sync invokes
  // them with the caller's object, and blocks meanwhile. Async and SignleAsync queue a task for
  // each: the first task takes the message, so that `message` is empty afterwards, and all others
  // get an empty std::any. A full queue does not block: it drops its oldest task, of any endpoint,
  // with a WARN.
  // Returns false, and logs, if there is no subscriber, no value in `message`, or no such type.
  ZORVIX_EXPORT bool Publish(const std::shared_ptr<const Control>& control, Message&& message);

  // Removes `callback` from a SignleAsync topic, or the server of a SignleAsync service. Does
  // nothing for other types.
  // Takes no lock: no other thread may use the bridge at the same time.
  // Logs ERROR for a null control, an unknown module, and a null callback of a topic.
  ZORVIX_EXPORT void SignleAsyncAutoRemove(const std::shared_ptr<const Control>& control,
                                           const SubscriberCallback& callback);

  // Registers or unregisters a client of a service. Logs as for publishers.
  ZORVIX_EXPORT void RegisterClient(std::shared_ptr<const Control>& control);
  ZORVIX_EXPORT void UnregisterClient(std::shared_ptr<const Control>& control);

  // Makes `callback` the server of a service. Logs as RegisterPublisher; WARN if it replaces one.
  ZORVIX_EXPORT void RegisterServer(std::shared_ptr<const Control>& control,
                                    const ServerCallback& callback);

  // Removes the server of a service; the number is ignored. Calls that are queued or in progress
  // still reach it. Logs INFO what was removed, ERROR if the name was not registered.
  ZORVIX_EXPORT void UnregisterServer(std::shared_ptr<const Control>& control, unsigned long);

  // Invokes `request` with the server's function, directly (Sync) or from the queue. `request`
  // calls that function with a request and a response of its own; queued, it must own all it uses,
  // and the caller's object is unspecified afterwards.
  // Logs exceptions of both with the address of the server's function object. Blocks as Publish.
  // Returns false, and logs, if there is no server or no such type.
  ZORVIX_EXPORT bool Call(const std::shared_ptr<const Control>& control, RequestCallback&& request);

  // Runs the oldest queued task on this thread. Its exceptions reach the caller.
  // Returns false, without taking a lock, if the queue is empty. Logs INFO how many tasks are left.
  ZORVIX_EXPORT bool RunOneceStep();

  // Runs queued tasks on this thread until the queue is empty.
  ZORVIX_EXPORT void SpinOnce();

  // Starts `workers` threads that drain the queue, and blocks until StopSpin has ended them. Any
  // number of threads may call this; the workers share one queue, and a stop applies to all. Clears
  // an earlier stop, also for workers that have not seen it. Logs INFO at the end, and twice when a
  // worker wakes. Throws if memory or threads run out; ends the process if workers have started.
  ZORVIX_EXPORT void Spin(unsigned long workers);

  // Ends each worker when it sees the queue empty. Blocks until all have ended, for at most 0.2 s
  // by the system's clock; in a task on a worker, always that long. Waits for a StopSpin in
  // progress. Does not wait for workers that have not begun, and a later Spin clears the stop: to
  // end a Spin for certain, repeat this until it has returned. Logs INFO at each poll, WARN at
  // timeout.
  ZORVIX_EXPORT void StopSpin();

 private:
  friend bool ::ZorvixIsSpin();
  Zorvix() = default;
  ~Zorvix() = default;
  void RegisterControl(std::shared_ptr<const Control>& control, const std::string& real_name)
      ZORVIX_REQUIRES(controls_mutex_);
  // For endpoints without a callback. The texts are those of log lines.
  void RegisterName(std::shared_ptr<const Control>& control, const char* operation);
  void UnregisterName(std::shared_ptr<const Control>& control, const char* operation,
                      const char* name_label);
  // Removes the receivers of a SignleAsync endpoint after a publication to `count` subscribers.
  void AutoRemoveSubscribers(const Control& control, std::size_t count)
      ZORVIX_REQUIRES(controls_mutex_, subscribers_mutex_);
  void PostPublication(const std::vector<SubscriberCallback>& callbacks, std::string name,
                       Message&& message);
  // Appends a task and drops the oldest one if the queue is full. The caller notifies events_cv_.
  void PostEvent(Task&& task);
  void SpinWorker();
  void RequestStop() ZORVIX_REQUIRES(spin_mutex_, events_mutex_);

  // Lock order: controls_mutex_, subscribers_mutex_, servers_mutex_. And: spin_mutex_,
  // events_mutex_. The queue is never locked while a table is.
  std::mutex controls_mutex_;
  std::unordered_map<std::string, std::weak_ptr<const Control>> controls_  // by real name
      ZORVIX_GUARDED_BY(controls_mutex_);

  // Lists are not empty and never change. They are replaced, so that publications can share them.
  std::mutex subscribers_mutex_;
  std::unordered_map<const Control*, std::shared_ptr<const std::vector<SubscriberCallback>>>
      subscribers_ ZORVIX_GUARDED_BY(subscribers_mutex_);

  std::mutex servers_mutex_;
  std::unordered_map<const Control*, ServerCallback> servers_ ZORVIX_GUARDED_BY(servers_mutex_);

  std::mutex events_mutex_;
  std::deque<Task> events_ ZORVIX_GUARDED_BY(events_mutex_);
  std::atomic<std::size_t> events_count_{0};  // size of events_, to be read without the lock
  std::condition_variable events_cv_;

  std::mutex spin_mutex_;  // held by StopSpin while it waits, so that no Spin starts
  std::atomic<bool> spin_stop_{false};
  std::atomic<std::int32_t> spin_count_{0};  // workers running
};

}  // namespace bridge

#endif  // ZORVIX_ZORVIX_H_
