// exit_test: ends while workers run. Their owners are static objects that are constructed before
// the bridge is first used, and must stop them before the bridge is destroyed. exit_test pending:
// ends while a message of a queued subscriber is pending, and a thread may be posting its task.
// exit_test late: destroys two handles after the bridge.
#include <zorvix/typed.h>
#include <zorvix/zorvix_flat.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

// Destroyed after the bridge.
static const struct Last {
  ~Last() {  // threads that still use the bridge would fail now
    for (int i = 0; i < 300; ++i) std::this_thread::yield();
  }
} last;

// Never destroyed.
static zorvix::Subscriber<int>* volatile subscriber;

static void LeavePending() {
  const zorvix::Topic<int> topic{"t"};
  subscriber = new zorvix::Subscriber(
      topic, [](int) { std::abort(); }, zorvix::Delivery::Queued);
  zorvix::Publisher(topic).Publish(1);
  const zorvix::Topic<int, bridge::BridgeType::Async> other{"other"};
  const zorvix::Subscriber others(other, [](int) {});
  for (int i = 0; i < 120; ++i) zorvix::Publisher(other).Publish(i);  // drops the task
}

// Constructed before the bridge.
static std::optional<zorvix::Publisher<int>> late;
static std::optional<zorvix::Publisher<int>> later;

int main(int count, char** arguments) {
  if (count > 1 && arguments[1] == std::string("late")) {
    late.emplace(zorvix::Topic<int>{"t"});
    later.emplace(zorvix::Topic<int>{"t"});
  } else if (count > 1) {
    LeavePending();
  } else {
    static const zorvix::Workers workers(2);
    static const zorvix::Workers others(1);  // destroyed first
    while (!ZorvixIsSpin()) std::this_thread::yield();
  }
}
