// trace_test exit|abort NAME...: traces what trace_test.py expects, a section for each name among
// it. Says whether tracing is on. Looks the functions up at run time, as the handles do.
#include <dlfcn.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <iostream>
#include <string_view>
#include <thread>

namespace {

template <typename Function>
Function* Find(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, name));
}
const auto enabled = Find<bool()>("ATrace_isEnabled");
const auto begin_section = Find<void(const char*)>("ATrace_beginSection");
const auto end_section = Find<void()>("ATrace_endSection");
const auto set_counter = Find<void(const char*, std::int64_t)>("ATrace_setCounter");

void Section(const char* name) {
  begin_section(name);
  end_section();
}

struct AtExit {
  ~AtExit() { Section("static destructor"); }
};
const AtExit at_exit;

void Work(const char* thread) {
  for (int i = 0; i < 500; ++i) {
    set_counter("work", i);
    begin_section("outer");
    Section("inner");
    end_section();
    end_section();  // one too many
  }
  pthread_setname_np(pthread_self(), thread);
}

void TakeTime() {
  begin_section("20 ms");
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  end_section();
}

void FinishChild() {
  const pid_t child = fork();
  if (child == 0) {
    Section("child");
    std::exit(0);
  }
  waitpid(child, nullptr, 0);
}

// The thread is in a section when the process exits.
void KeepRunning() {
  std::promise<void> running;
  std::thread([&running] {
    begin_section("running");
    pthread_setname_np(pthread_self(), "running");
    running.set_value();
    for (;;) pause();
  }).detach();
  running.get_future().wait();
}

}  // namespace

int main(int count, char** arguments) {
  std::cout << (enabled() ? "on" : "off") << std::endl;
  pthread_setname_np(pthread_self(), "\"main\" \\");
  for (int i = 2; i < count; ++i) Section(arguments[i]);
  for (const std::int64_t value : {INT64_MIN, INT64_MAX}) set_counter("\"count\"", value);
  FinishChild();

  std::thread first(Work, "first");
  std::thread second(Work, "second");
  std::thread(TakeTime).join();
  first.join();
  second.join();
  KeepRunning();

  if (arguments[1] == std::string_view("abort")) std::abort();
}
