// Loads modules one after the other, as an app does, and prints on its main thread what they do.
// At the end it checks that every sample was received or dropped. The log of the bridge goes to a
// file beside the program.
#include <dlfcn.h>
#include <zorvix/inspect.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <optional>
#include <stdexcept>

#include "screen.h"

namespace {

std::FILE* log_file = stderr;
std::atomic<int> log_lines{0};

// Returns a pointer that destroys the module's object and closes the module.
std::shared_ptr<void> LoadModule(const std::string& path) {
  void* const library = dlopen(path.c_str(), RTLD_LOCAL | RTLD_NOW);
  if (library == nullptr) throw std::runtime_error(dlerror());
  std::shared_ptr<void> module;
  reinterpret_cast<decltype(&ModuleLoad)>(dlsym(library, "ModuleLoad"))(module);
  return {library, [module](void* handle) mutable {
            module.reset();
            dlclose(handle);
          }};
}

const char* DescribeThread(const demo::Account& account, const demo::Sample& sample) {
  if (account.threads.size() != 1) return "several threads";
  const auto thread = *account.threads.begin();
  if (thread == std::this_thread::get_id()) return "the main thread";
  if (thread == sample.sampled_on) return "the sampler's thread";
  return "a thread of its own";
}

class Host {
 public:
  explicit Host(std::string folder) : folder_(std::move(folder)) {}

  // Loads the modules, lets them work, and closes them. Any order works: each module finds those
  // that are there, and is found by later ones.
  void Run() {
    demo::Say("host", "prints all this on its main thread");
    auto recorder = Load("recorder");
    PauseForReader();
    auto uploader = Load("uploader");
    PauseForReader();
    auto sampler = Load("sampler");
    screen_.UpdateUntil(30);
    answered_without_adviser_ = AskForAdvice().has_value();
    screen_.UpdateUntil(50);

    const int recorded_before = screen_.recorded.received;
    auto adviser = Load("adviser");
    const auto advice = AskForAdvice();
    adviser_was_current_ = advice && advice->samples >= recorded_before;
    screen_.UpdateUntil(80);

    // The uploader is behind: messages are pending for it, and it has dropped others.
    std::cout << '\n' << zorvix::Inspect() << std::endl;
    const int last_before = screen_.recorded.last;
    uploader.reset();
    screen_.Update();
    // The latest sample may still have been on its way to the uploader.
    uploader_was_current_ = screen_.uploaded.last >= last_before - 1;
    demo::Say("host", "closed the uploader: with KeepLast{2} it dropped " +
                          std::to_string(screen_.uploaded.dropped) + " samples, the recorder " +
                          std::to_string(screen_.recorded.dropped));
    screen_.UpdateUntil(last_before + 40);

    demo::Say("host", "saw the others continue, and closes them");
    adviser.reset();
    sampler.reset();
    recorder.reset();
    screen_.Update();
  }

  // Prints what became of the samples. Returns whether that and the advice were as expected.
  bool Report() const {
    std::printf("%s\n          sent = received + dropped\n", screen_.terminal ? "\n" : "");
    const bool recorder_good = PrintAccount("recorder", screen_.sent, screen_.recorded,
                                            "a thread of its own", "KeepAll: drops nothing");
    const bool uploader_good =
        PrintAccount("uploader", screen_.uploaded.last, screen_.uploaded, "a thread of its own",
                     "KeepLast{2}: slow on purpose, until it was closed");
    const bool host_good = PrintAccount("host", screen_.sent, screen_.shown, "the main thread",
                                        "KeepLast{1}: only the latest value");
    return recorder_good && uploader_good && host_good && screen_.recorded.dropped == 0 &&
           screen_.uploaded.threads != screen_.recorded.threads && !answered_without_adviser_ &&
           adviser_was_current_ && uploader_was_current_;
  }

 private:
  static void PauseForReader() { std::this_thread::sleep_for(std::chrono::milliseconds(500)); }

  std::shared_ptr<void> Load(const std::string& name) {
    auto module = LoadModule(folder_ + "libdemo_" + name + ".so");
    screen_.Update();
    return module;
  }

  std::optional<demo::Advice> AskForAdvice() const {
    auto advice = advice_.Call({});
    demo::Say("host", "asks for advice: " + (advice ? advice->text : "there is no server"));
    return advice;
  }

  // Returns whether all samples are accounted for and were received on that thread.
  bool PrintAccount(const char* module, int sent, const demo::Account& account,
                    const std::string& expected_thread, const char* remark) const {
    const std::string thread = DescribeThread(account, screen_.sample);
    std::printf("%-8s  %4d = %8d + %7d   on %s, %s\n", module, sent, account.received,
                account.dropped, thread.c_str(), remark);
    return account.received + account.dropped == sent && account.last == sent &&
           thread == expected_thread;
  }

  const std::string folder_;
  // Logs slow callables, and has invocations counted for the table.
  const zorvix::SlowLog slow_{std::chrono::milliseconds(100)};
  Screen screen_;
  const zorvix::Client<demo::Nothing, demo::Advice> advice_{demo::kAdvice};
  bool answered_without_adviser_ = true;
  bool adviser_was_current_ = false;
  bool uploader_was_current_ = false;
};

bool RunHost(const std::string& folder) {
  Host host(folder);
  host.Run();
  return host.Report();
}

}  // namespace

// Replaces the system's function for the bridge and for all modules.
extern "C" __attribute__((visibility("default"))) int __android_log_print(int priority,
                                                                          const char* tag,
                                                                          const char* format, ...) {
  char text[2048];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  ++log_lines;
  return std::fprintf(log_file, "%c/%s: %s\n", "??VDIWEF"[priority & 7], tag, text);
}

int main(int, char** argv) try {
  const std::string program = argv[0];
  const std::string log_path = program + ".log";
  log_file = std::fopen(log_path.c_str(), "w");
  if (log_file == nullptr) {
    std::perror(log_path.c_str());
    return 1;
  }
  demo::NameThread("host");
  const bool good = RunHost(program.substr(0, program.rfind('/') + 1));
  std::puts(good ? "\nAll samples are accounted for." : "\nThe result is not as expected.");
  // After the host is destroyed, whose handles log that they unregister.
  std::printf("%d lines of the log are in %s\n", log_lines.load(), log_path.c_str());
  return good ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "demo: %s\n", error.what());
  return 1;
}
