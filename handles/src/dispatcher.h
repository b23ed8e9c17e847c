// Queued delivery: drains strands in tasks of the bridge's queue.
#ifndef ZORVIX_HANDLES_DISPATCHER_H_
#define ZORVIX_HANDLES_DISPATCHER_H_

#include <cstddef>
#include <memory>

#include "strand.h"

namespace zorvix::detail {

// Constructs the dispatcher, and the bridge before it, unless they exist.
void MakeDispatcher();

// Returns the strand of one queued handle.
std::shared_ptr<Strand> MakeQueuedStrand(const Endpoint& endpoint);

// Whether a task of queued delivery has begun after that time.
bool HasBegunTaskAfter(Clock::time_point time);

// While queued delivery is paused, tasks invoke no callable and none are posted. A drain in
// progress ends after its current invocation. Everything stays pending, in order.
void PauseQueued();
// Ends the pause. PostQueuedTasks must follow.
void ResumeQueued();

// The drains of the bridge's queue, as far as they invoke tasks of handles.
struct QueueDrains {
  int drainer = 0;  // the thread of the latest task, or 0
  Clock::time_point latest_at;
};
QueueDrains LookAtQueueDrains();

// Returns how many workers Workers objects have started.
std::size_t CountWorkers();

// Posts the tasks for what is pending. To be called under no lock.
void PostQueuedTasks();

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_DISPATCHER_H_
