// Queued delivery: drains strands in tasks of the bridge's queue.
#ifndef ZORVIX_HANDLES_DISPATCHER_H_
#define ZORVIX_HANDLES_DISPATCHER_H_

#include <memory>

#include "strand.h"

namespace zorvix::detail {

// Returns the strand of one queued handle.
std::shared_ptr<Strand> MakeQueuedStrand(const Endpoint& endpoint);

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_DISPATCHER_H_
