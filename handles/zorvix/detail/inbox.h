// What a module compiles of an inbox. Not for users.
#ifndef ZORVIX_DETAIL_INBOX_H_
#define ZORVIX_DETAIL_INBOX_H_

#include <zorvix/detail/erasure.h>

#include <functional>
#include <type_traits>

namespace zorvix {

class Inbox;

namespace detail {

struct InboxState;
class DrainThread;
InboxState& StateOf(const Inbox& inbox);

}  // namespace detail

namespace detail ZORVIX_HIDDEN {

// A task of Inbox::Post.
template <typename Task>
struct Posted {
  static_assert(std::is_invocable_v<Task&>, "a task must be a callable without arguments");
  void operator()() { static_cast<void>(std::invoke(task)); }
  static constexpr bool kHasAnswer = false;
  Task task;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_INBOX_H_
