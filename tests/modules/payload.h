// What modules exchange and what they export.
#ifndef ZORVIX_TESTS_MODULES_PAYLOAD_H_
#define ZORVIX_TESTS_MODULES_PAYLOAD_H_

#include <dlfcn.h>
#include <zorvix/typed.h>

struct Reading {
  std::string unit;
  int value;
  bool operator==(const Reading& other) const { return unit == other.unit && value == other.value; }
};

// Calls `use` with each payload and the name of its queued topic and its service.
template <typename Function>
void ForEachPayload(Function use) {
  use("number", 42);
  use("text", std::string("text"));
  use("readings", std::vector<Reading>{{"a unit too long to be stored inside a string", 7}});
}

#define BIND(library, name) reinterpret_cast<decltype(&name)>(dlsym(library, #name))

// Of the module that is not linked with the bridge, which `library` is: publishes each payload and
// asks the service for it. Returns whether all answers are right.
extern "C" ZORVIX_EXPORT bool Send(void* library);

// Of the modules that are linked with it:
extern "C" ZORVIX_EXPORT void Receive();        // subscribes, and serves what has come, once
extern "C" ZORVIX_EXPORT void Hold(int value);  // sets a state
extern "C" ZORVIX_EXPORT void Watch(int* newest);
extern "C" ZORVIX_EXPORT int UseAll();  // returns how many callables were invoked
extern "C" ZORVIX_EXPORT void Leave();

#endif  // ZORVIX_TESTS_MODULES_PAYLOAD_H_
