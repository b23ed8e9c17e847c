// Has handles that tests inspect. Built twice, as two modules.
#include "inspected.h"

#include <zorvix/inspect.h>

namespace {
struct Handles {
  zorvix::Inbox inbox;
  std::shared_ptr<void> direct;
  std::shared_ptr<void> pending;
};
std::optional<Handles> handles;
}  // namespace

void Subscribe(int milliseconds) {
  using Ints = zorvix::Subscriber<int>;
  const zorvix::Topic<int> topic{"inspected"};
  const auto block = [milliseconds](int) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  };
  handles.emplace();
  handles->direct = std::make_shared<Ints>(topic, block);
  handles->pending = std::make_shared<Ints>(topic, block, handles->inbox, zorvix::KeepLast{2});
}

void Unsubscribe() { handles.reset(); }

std::size_t CountHandles() { return zorvix::Inspect().size(); }
