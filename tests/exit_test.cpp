// A process that never used the bridge before ends with workers that are still there.
#include <zorvix/typed.h>

static const zorvix::Workers workers(2);

int main() {}
