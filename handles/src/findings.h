// What is wrong with handles, as far as the list of all handles tells.
#ifndef ZORVIX_HANDLES_FINDINGS_H_
#define ZORVIX_HANDLES_FINDINGS_H_

#include <zorvix/inspect.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "endpoint.h"
#include "strand.h"
#include "sync.h"

namespace zorvix::detail {

// A line of the table, with what it takes to find its counterparts. The pointers are only compared:
// what they point to may not exist any more.
struct Row {
  HandleInfo info;
  std::size_t position = 0;  // in the order of construction
  const Record* record = nullptr;
  const Record* adopter = nullptr;     // the record of the row that shows this one
  const char* counted_kind = nullptr;  // as in Record
  Name name = nullptr;                 // its address is the same for all handles that can match
  bridge::BridgeType bridge_type = bridge::BridgeType::Sync;
  const Strand* strand = nullptr;
  bool is_queued = false;  // drained by the bridge's queue, or that queue itself
  Strand::Drains drains;
  // Endpoints of the name: all, and those of the handle.
  long participants = 0;
  long own_participants = 0;
  bool is_running_time_exact = false;
  int waiting_thread = 0;  // that of `info.waiting_for`
};

// Sets what needs more than one row: counterparts and findings. `slow_limit` as in records.h.
void FindProblems(std::vector<Row>& rows, Clock::time_point now, std::int64_t slow_limit);

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_FINDINGS_H_
