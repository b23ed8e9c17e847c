// The modules that have handles: their names, and how long they must stay loaded.
#ifndef ZORVIX_HANDLES_MODULES_H_
#define ZORVIX_HANDLES_MODULES_H_

#include <zorvix/detail/erasure.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "gate.h"
#include "sync.h"

namespace zorvix::detail {

// Returns the file name of the module, such as "libhud.so". The text is never freed, since what
// has it may live longer than the module.
const char* ModuleName(Module& module);

// Keeps the module loaded until the process ends, even after dlclose. Logs an INFO the first time,
// with the reason and the name of the endpoint or inbox. Does nothing for the program itself.
void KeepLoaded(Module& module, const char* reason, const std::string& name);

// Does so for the module of an Async or SignleAsync endpoint: messages and requests in the bridge's
// queue are destroyed by its code.
void KeepLoadedIfQueuedByBridge(const Endpoint& endpoint);

// Destroys the values of one holder, whose destructors are code of the holder's module. If others
// still have values when the holder is destroyed, the module stays loaded until the last of them is
// destroyed.
class ValueOwner {
 public:
  explicit ValueOwner(Module& module);
  ValueOwner(const ValueOwner&) = delete;
  ValueOwner& operator=(const ValueOwner&) = delete;

  void AddValue();
  // To be called with a value that nobody has any more.
  void DestroyValue(const void* value, void (*destroy)(const void*));
  // To be called once, when the holder is destroyed.
  void EndHolder(const Record& holder);

 private:
  // Returns what has kept the module loaded, if nothing needs that any more, or null.
  void* RemoveValue();
  void DestroyAfterHolder(const void* value, void (*destroy)(const void*));
  bool IsStillLoaded(const void* code) const;

  Module& module_;
  const std::uint32_t load_number_;
  const std::string path_;
  Gate gate_;  // closed when the holder is destroyed
  Mutex mutex_;
  std::size_t values_ ZORVIX_GUARDED_BY(mutex_) = 0;
  void* kept_ ZORVIX_GUARDED_BY(mutex_) = nullptr;  // the module, by dlopen
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_MODULES_H_
