// What the module that tests inspect exports.
#ifndef ZORVIX_TESTS_MODULES_INSPECTED_H_
#define ZORVIX_TESTS_MODULES_INSPECTED_H_

#include <zorvix/zorvix.h>

// Subscribes to "inspected" twice: directly, with a callable that blocks for so many milliseconds,
// and with an inbox that is never drained and a depth of 2.
extern "C" ZORVIX_EXPORT void Subscribe(int milliseconds);
extern "C" ZORVIX_EXPORT void Unsubscribe();
// Returns how many handles the module sees.
extern "C" ZORVIX_EXPORT std::size_t CountHandles();

#endif  // ZORVIX_TESTS_MODULES_INSPECTED_H_
