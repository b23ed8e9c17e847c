// What modules exchange and what they export.
#ifndef ZORVIX_TESTS_MODULES_PAYLOAD_H_
#define ZORVIX_TESTS_MODULES_PAYLOAD_H_

#include <dlfcn.h>
#include <zorvix/typed.h>

#include <filesystem>
#include <stdexcept>

struct Reading {
  std::string unit;
  int value;
  bool operator==(const Reading& other) const { return unit == other.unit && value == other.value; }
};

// Calls `use` with each payload and the name of its topic, service and state.
template <typename Function>
void ForEachPayload(Function use) {
  use("number", 42);
  use("text", std::string("text"));
  use("readings", std::vector<Reading>{{"a unit too long to be stored inside a string", 7}});
}

// Modules are in the program's folder.
inline std::string PathOf(const std::string& module) {
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename("lib" + module + ".so");
}

// A module that is loaded apart from others, as an app loads its modules.
struct Module {
  explicit Module(const std::string& name)
      : path(PathOf(name)), library(dlopen(path.c_str(), RTLD_LOCAL | RTLD_NOW)) {
    if (library == nullptr) throw std::runtime_error(dlerror());
  }
  // Returns whether the code is no longer in memory.
  bool Unload() const { return dlclose(library) == 0 && !IsLoaded(); }
  bool IsLoaded() const {
    void* const loaded = dlopen(path.c_str(), RTLD_NOLOAD | RTLD_NOW);
    if (loaded != nullptr) dlclose(loaded);
    return loaded != nullptr;
  }
  const std::string path;
  void* const library;
};

#define BIND(module, name) reinterpret_cast<decltype(&name)>(dlsym((module).library, #name))

// Of the module that is not linked with the bridge: publishes each payload and asks the service for
// it. Returns whether all answers are right.
extern "C" ZORVIX_EXPORT bool Send(const Module& bridge);

// Of the modules that have handles:
extern "C" ZORVIX_EXPORT void Do(const char* action);  // see there
extern "C" ZORVIX_EXPORT void Receive();               // subscribes, and serves what has come, once
extern "C" ZORVIX_EXPORT void Hold(int value);         // sets a state
extern "C" ZORVIX_EXPORT void Watch(const Reading** newest);
extern "C" ZORVIX_EXPORT void Subscribe();            // to "never drained", with a depth of 2
extern "C" ZORVIX_EXPORT std::size_t CountHandles();  // as Inspect returns them
extern "C" ZORVIX_EXPORT void UseEachPayload(std::atomic<int>* invocations);   // in every way
extern "C" ZORVIX_EXPORT void SendEachPayload(const std::atomic<bool>* stop);  // until then
extern "C" ZORVIX_EXPORT zorvix::Inbox* MakeInbox();
extern "C" ZORVIX_EXPORT void Post(zorvix::Inbox* inbox);
extern "C" ZORVIX_EXPORT void Leave();  // destroys all handles

#endif  // ZORVIX_TESTS_MODULES_PAYLOAD_H_
