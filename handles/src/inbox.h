// What an inbox shares with its handles.
#ifndef ZORVIX_HANDLES_INBOX_H_
#define ZORVIX_HANDLES_INBOX_H_

#include <zorvix/detail/library.h>
#include <zorvix/inbox.h>

#include <memory>
#include <string>

#include "message_queue.h"

namespace zorvix::detail {

struct InboxState {
  InboxState(const std::string& name, Module& its_module);

  Module& module;
  const std::shared_ptr<Strand> strand;
  const std::shared_ptr<MessageQueue> tasks;
  const Listed listed{*tasks};
};

// Returns the strand in which a callable is invoked at that place, or null if it is invoked
// directly.
std::shared_ptr<Strand> StrandAt(const Place& place, const Endpoint& endpoint);

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_INBOX_H_
