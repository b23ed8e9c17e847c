// trace_test exit|abort NAME...: traces what trace_test.py expects, a section for each name among
// it. `abort` does nothing for a second before it crashes. Says whether tracing is on. Looks the
// functions up at run time, as the handles do.
#include <dlfcn.h>
#include <pthread.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string_view>
#include <thread>

namespace {

template <typename Function>
Function* Find(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, name));
}
const auto begin_section = Find<void(const char*)>("ATrace_beginSection");
const auto end_section = Find<void()>("ATrace_endSection");
const auto set_counter = Find<void(const char*, std::int64_t)>("ATrace_setCounter");

void Section(const char* name) {
  begin_section(name);
  end_section();
}

const struct AtExit {
  ~AtExit() { Section("static destructor"); }
} at_exit;

void Work(const char* name) {
  for (int i = 0; i < 500; ++i) {
    set_counter("work", i);
    Section("section");
    end_section();  // one too many
  }
  pthread_setname_np(pthread_self(), name);
  begin_section("20 ms");
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  end_section();
  begin_section("when the process exits");
}

}  // namespace

int main(int count, char** arguments) {
  std::cout << (Find<bool()>("ATrace_isEnabled")() ? "on" : "off") << std::endl;
  pthread_setname_np(pthread_self(), "\"main\" \\");
  for (int i = 2; i < count; ++i) Section(arguments[i]);
  for (const std::int64_t value : {INT64_MIN, INT64_MAX}) set_counter("\"count\"", value);
  std::thread other(Work, "other");
  Work("\"main\" \\");
  other.join();
  if (arguments[1] == std::string_view("abort")) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::abort();
  }
}
