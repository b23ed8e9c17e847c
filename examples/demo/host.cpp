// Loads modules one after the other, as an app would, and shows on its main thread what they do
// while they do it. At the end it checks what became of all samples. The bridge's log goes to a
// file beside the program.
#include <dlfcn.h>

#include <cstdarg>

#include "screen.h"

namespace {

std::FILE* log_file = stderr;
std::atomic<int> log_lines{0};

std::shared_ptr<void> Load(const std::string& path) {
  void* const library = dlopen(path.c_str(), RTLD_LOCAL | RTLD_NOW);
  if (library == nullptr) throw std::runtime_error(dlerror());
  std::shared_ptr<void> module;
  reinterpret_cast<decltype(&ModuleLoad)>(dlsym(library, "ModuleLoad"))(module);
  return {library, [module](void* it) mutable {
            module.reset();
            dlclose(it);
          }};
}

const char* Where(const std::set<std::thread::id>& threads, std::thread::id samplers) {
  if (threads.size() != 1) return "several threads";
  if (threads.count(std::this_thread::get_id()) != 0) return "the main thread";
  return threads.count(samplers) != 0 ? "the sampler's thread" : "a thread of its own";
}

}  // namespace

// Takes the place of the platform's for the bridge and all modules.
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
  const std::string program = argv[0], log_path = program + ".log";
  if ((log_file = std::fopen(log_path.c_str(), "w")) == nullptr) {
    std::perror(log_path.c_str());
    return 1;
  }
  Screen screen;
  const auto load = [&](const std::string& name) {
    const std::string folder = program.substr(0, program.rfind('/') + 1);
    auto module = Load(folder + "libdemo_" + name + ".so");
    screen.Update();
    return module;
  };
  const zorvix::Client advice(demo::kAdvice);
  const auto ask = [&] {
    auto answer = advice.Call({});
    demo::Say("host", "asks for advice: " + (answer ? answer->text : "nobody is there to answer"));
    return answer;
  };

  // In any order: each finds what is there, and is found by what comes.
  demo::Say("host", "shows all this, on its main thread");
  auto recorder = load("recorder");
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // for who reads along
  auto uploader = load("uploader");
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  auto sampler = load("sampler");
  screen.UpdateUntil(30);
  const bool unanswered = !ask();
  screen.UpdateUntil(50);
  const int summed = screen.recorded.taken;
  auto adviser = load("adviser");
  const auto answer = ask();
  screen.UpdateUntil(80);

  const int seen = screen.recorded.last;
  uploader.reset();
  screen.Update();
  demo::Say("host", "took the uploader out: it lost " + std::to_string(screen.uploaded.lost) +
                        " samples, the recorder " + std::to_string(screen.recorded.lost));
  screen.UpdateUntil(seen + 40);
  demo::Say("host", "saw the others go on, and stops them");
  adviser.reset();
  sampler.reset();
  recorder.reset();
  screen.Update();

  // All but perhaps the newest sample had reached the uploader when it was told to go.
  bool good = unanswered && answer && answer->samples >= summed && screen.recorded.lost == 0 &&
              screen.uploaded.last >= seen - 1 &&
              screen.uploaded.threads != screen.recorded.threads;
  const auto balance = [&](const char* who, int sent, const demo::Account& account,
                           const std::string& where, const char* remark) {
    const auto ran = Where(account.threads, screen.sample.taken_on);
    std::printf("%-8s  %4d = %5d + %4d   on %s, %s\n", who, sent, account.taken, account.lost, ran,
                remark);
    good &= account.taken + account.lost == sent && account.last == sent && ran == where;
  };
  std::printf("%s\n          sent = taken + lost\n", screen.terminal ? "\n" : "");
  balance("recorder", screen.sent, screen.recorded, "a thread of its own", "which keeps all");
  balance("uploader", screen.uploaded.last, screen.uploaded, "a thread of its own",
          "until it was taken out");
  balance("host", screen.sent, screen.shown, "the main thread", "the newest only");
  std::puts(good ? "\nAll is accounted for." : "\nThis is not what should have come out.");
  std::printf("%d lines of the log are in %s\n", log_lines.load(), log_path.c_str());
  return good ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "demo: %s\n", error.what());
  return 1;
}
