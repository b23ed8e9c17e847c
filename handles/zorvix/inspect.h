// Reports what the handles of the process do: which are registered, what is pending and dropped,
// and which callables are slow. Covers all modules, also those loaded with RTLD_LOCAL.
//
//   std::cerr << zorvix::Inspect();
//   const zorvix::SlowLog slow(std::chrono::milliseconds(16));
#ifndef ZORVIX_INSPECT_H_
#define ZORVIX_INSPECT_H_

#include <zorvix/zorvix.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace zorvix {

struct HandleInfo {
  std::string kind;    // "Publisher", "Subscriber", "Server", "Client", "Holder", "Watcher" or
                       // "Presence"
  std::string name;    // of the topic, service or state
  std::string module;  // file name of the module that constructed it, such as "libhud.so"
  // Of a handle with an inbox or queued delivery, at the moment at which it was looked at:
  std::size_t pending = 0;  // messages, requests or answers
  std::size_t depth = 0;    // of KeepLast; 0: nothing is kept; the largest number: KeepAll
  std::size_t dropped = 0;  // since the handle was constructed
  // While a SlowLog lived:
  std::uint64_t invocations = 0;
  std::chrono::nanoseconds longest{0};
};

// Returns the handles of the process, sorted by name, kind and module. Any thread may call it at
// any time, also inside a callable. Handles that are constructed or destroyed meanwhile may be
// missing.
ZORVIX_EXPORT std::vector<HandleInfo> Inspect();

// Prints a table with a line for each handle.
ZORVIX_EXPORT std::ostream& operator<<(std::ostream& out, const std::vector<HandleInfo>& handles);

// While an object exists, each invocation of a handle's callable or of a posted task that takes
// longer than the limit is logged as a WARN, with kind, name, module and milliseconds, and the
// invocations of each handle are counted; the counts are kept afterwards. If there are several
// objects, the smallest limit applies. Without one, no clock is read. Any thread may construct it.
class ZORVIX_EXPORT SlowLog {
 public:
  [[nodiscard]] explicit SlowLog(std::chrono::milliseconds limit);
  ~SlowLog();
  SlowLog(const SlowLog&) = delete;
  SlowLog& operator=(const SlowLog&) = delete;

 private:
  const std::int64_t limit_;
};

}  // namespace zorvix

#endif  // ZORVIX_INSPECT_H_
