// unload_test FIRST SECOND CLOSED_FIRST: loads two modules, the first of which brings the bridge
// and the C++ standard library along, lets them exchange a value, closes them and expects both to
// be gone. Uses nothing of the C++ standard library itself, as is usual for an app's host.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct Module {
  char path[4096];
  void* library;
};

Module Load(const char* program, const char* name) {
  Module module;
  const auto folder_length = static_cast<int>(std::strrchr(program, '/') - program);
  std::snprintf(module.path, sizeof module.path, "%.*s/lib%s.so", folder_length, program, name);
  module.library = dlopen(module.path, RTLD_LOCAL | RTLD_NOW);
  if (module.library == nullptr) {
    std::puts(dlerror());
    std::exit(2);
  }
  return module;
}

template <typename Function>
Function* Find(const Module& module, const char* name) {
  return reinterpret_cast<Function*>(dlsym(module.library, name));
}

bool IsGone(const Module& module) {
  const bool gone = dlopen(module.path, RTLD_NOLOAD | RTLD_NOW) == nullptr;
  std::printf("%s: %s\n", module.path, gone ? "unloaded" : "still loaded");
  return gone;
}

}  // namespace

int main(int, char** argv) {
  const Module first = Load(argv[0], argv[1]);
  const Module second = Load(argv[0], argv[2]);
  int newest = 0;
  Find<void(int*)>(second, "Watch")(&newest);
  Find<void(int)>(first, "Hold")(7);
  Find<void()>(second, "Leave")();
  Find<void()>(first, "Leave")();

  const bool close_first = std::strcmp(argv[3], argv[1]) == 0;
  dlclose(close_first ? first.library : second.library);
  dlclose(close_first ? second.library : first.library);

  const bool first_gone = IsGone(first);
  const bool second_gone = IsGone(second);
  return newest == 7 && first_gone && second_gone ? EXIT_SUCCESS : EXIT_FAILURE;
}
