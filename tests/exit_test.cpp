// A process ends with workers that are still there, in an object older than its first use of the
// bridge.
#include <zorvix/typed.h>
#include <zorvix/zorvix_flat.h>

static const zorvix::Workers workers(2);

int main() {
  while (!ZorvixIsSpin()) std::this_thread::yield();
}
