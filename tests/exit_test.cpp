// A process may end while workers run. Their owner is a static object that is constructed before
// the bridge is first used, and must stop them before the bridge is destroyed.
#include <zorvix/typed.h>
#include <zorvix/zorvix_flat.h>

static const zorvix::Workers workers(2);

int main() {
  while (!ZorvixIsSpin()) std::this_thread::yield();
}
