// Android's functions for tracing, for a Linux host. Load this library with LD_PRELOAD and name a
// file in ZORVIX_TRACE; without that variable tracing is off. https://ui.perfetto.dev opens the
// file, and draw_trace.py sums it up or draws it.
//
// The file is an array of events in Chrome's JSON format. Events are buffered and written after
// 16 KiB, ten times a second, and when the process exits. So the file also tells what a program did
// before it hung. A process that crashes, is killed or calls _exit leaves the array without its
// closing bracket, which Perfetto accepts, and loses the events of the buffer.
//
// The file is opened at the first event, so a process that traces nothing does not touch it. Two
// processes that trace need two files. The child of a fork is not traced.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <locale>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

void AppendNumber(std::string& text, std::int64_t number) {
  char digits[20];
  text.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

// Returns how many bytes the UTF-8 character at the beginning has, or 0 if it is malformed.
std::size_t CharacterSize(std::string_view text) {
  using Utf8 = std::codecvt<char32_t, char, std::mbstate_t>;
  std::mbstate_t state{};
  const char* const begin = text.data();
  const int size =
      std::use_facet<Utf8>(std::locale::classic()).length(state, begin, begin + text.size(), 1);
  const bool surrogate = size == 3 && begin[0] == '\xed' && begin[1] >= '\xa0';
  return surrogate ? 0 : static_cast<std::size_t>(size);
}

bool IsPlain(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\';
}

// Appends the first character of a text, which is not plain, and returns its size.
std::size_t AppendEscaped(std::string& text, std::string_view value) {
  constexpr char kHex[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(value[0]);
  if (byte < 0x20) {
    text += {'\\', 'u', '0', '0', kHex[byte >> 4], kHex[byte & 15]};
    return 1;
  }
  if (byte < 0x80) {
    text += {'\\', value[0]};
    return 1;
  }
  const std::size_t size = CharacterSize(value);
  if (size == 0) {
    text += "\\ufffd";
    return 1;
  }
  text += value.substr(0, size);
  return size;
}

// Appends a JSON string. Replaces each malformed byte by U+FFFD.
void AppendString(std::string& text, std::string_view value) {
  text += '"';
  while (!value.empty()) {
    const auto special = std::find_if_not(value.begin(), value.end(), IsPlain);
    const auto plain = static_cast<std::size_t>(special - value.begin());
    text += value.substr(0, plain);
    value.remove_prefix(plain);
    if (!value.empty()) value.remove_prefix(AppendEscaped(text, value));
  }
  text += '"';
}

std::string ThreadName(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/comm");
  std::string name;
  std::getline(file, name);
  return name;
}

// Of the calling thread. Without destructors, so that they last as long as the thread.
thread_local pid_t this_thread = 0;  // its number, from its first event on
thread_local int open_sections = 0;

class Trace {
 public:
  // Never destroyed, since threads may still trace while the process exits.
  static Trace& Instance() {
    static Trace& trace = *new Trace;
    return trace;
  }

  bool enabled() const { return enabled_; }

  // Adds an event of the calling thread. `append_fields` appends what is particular to its phase.
  template <typename AppendFields>
  void Add(char phase, const AppendFields& append_fields) {
    if (!enabled_) return;
    const auto now = Clock::now();
    const std::lock_guard lock(mutex_);
    if (!enabled_) return;  // the process exits
    if (this_thread == 0) EnterThread();
    AppendEvent(phase, this_thread, now, append_fields);
    constexpr std::size_t kFull = 16'384;
    if (buffer_.size() >= kFull) Write();
    if (!std::exchange(has_traced_, true)) StartWriter();
  }

  void Finish() {
    if (!enabled_) return;
    const std::lock_guard lock(mutex_);
    for (auto& [thread, name] : names_) UpdateName(thread, name);
    if (has_traced_) {
      buffer_ += "\n]\n";
      Write();
    }
    Stop();
  }

 private:
  Trace() {
    if (path_ == nullptr || *path_ == '\0') return;
    enabled_ = true;
    buffer_ = "[\n{\"ph\":\"M\",\"pid\":";
    AppendNumber(buffer_, process_);
    buffer_ += R"(,"name":"process_name","args":{"name":)";
    AppendString(buffer_, program_invocation_short_name);
    buffer_ += "}}";
    // The child has a copy of the buffer and shares the file, which is the parent's. Another thread
    // may have held the mutex, so the child must not take it.
    pthread_atfork(nullptr, nullptr, [] { Instance().enabled_ = false; });
  }

  // The functions below require the mutex.

  template <typename AppendFields>
  void AppendEvent(char phase, pid_t thread, Clock::time_point time,
                   const AppendFields& append_fields) {
    const std::int64_t nanoseconds = std::chrono::nanoseconds(time.time_since_epoch()).count();
    buffer_ += ",\n{\"ph\":\"";
    buffer_ += phase;
    buffer_ += R"(","pid":)";
    AppendNumber(buffer_, process_);
    buffer_ += R"(,"tid":)";
    AppendNumber(buffer_, thread);
    buffer_ += R"(,"ts":)";  // in microseconds
    AppendNumber(buffer_, nanoseconds / 1000);
    buffer_ += '.';
    const std::int64_t fraction = nanoseconds % 1000;
    buffer_ +=
        {static_cast<char>('0' + fraction / 100), static_cast<char>('0' + fraction / 10 % 10),
         static_cast<char>('0' + fraction % 10)};
    append_fields(buffer_);
    buffer_ += '}';
  }

  void EnterThread() {
    this_thread = gettid();
    UpdateName(this_thread, names_[this_thread]);
    struct AtThreadEnd {
      ~AtThreadEnd() { Instance().LeaveThread(); }
    };
    static thread_local const AtThreadEnd at_end;
    static_cast<void>(at_end);
  }

  // Takes the mutex itself.
  void LeaveThread() {
    if (!enabled_) return;
    const std::lock_guard lock(mutex_);
    const auto known = names_.find(this_thread);
    if (!enabled_ || known == names_.end()) return;
    UpdateName(this_thread, known->second);
    names_.erase(known);
  }

  // A thread may get its name after its first event, also from another thread. The last event wins.
  // One that never gets a name has inherited the main thread's, which says nothing.
  void UpdateName(pid_t thread, std::string& known) {
    std::string name = ThreadName(thread);
    if (name.empty() || name == known) return;
    if (thread != process_ && name == ThreadName(process_)) return;
    AppendEvent('M', thread, Clock::now(), [&name](std::string& event) {
      event += R"(,"name":"thread_name","args":{"name":)";
      AppendString(event, name);
      event += '}';
    });
    known = std::move(name);
  }

  // Without this thread, events are written when the buffer is full.
  void StartWriter() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);  // signals are for the program's own threads
    try {
      std::thread([this] { WriteRegularly(); }).detach();
    } catch (const std::system_error& error) {
      std::cerr << "cannot write the trace regularly: " << error.what() << '\n';
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  // Takes the mutex itself.
  void WriteRegularly() {
    pthread_setname_np(pthread_self(), "zorvix trace");
    while (enabled_) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      const std::lock_guard lock(mutex_);
      if (enabled_ && !buffer_.empty()) Write();
    }
  }

  void Write() {
    if (file_ < 0) file_ = open(path_, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    std::string_view rest = buffer_;
    while (!rest.empty()) {
      const ssize_t written = file_ < 0 ? -1 : write(file_, rest.data(), rest.size());
      if (written >= 0) {
        rest.remove_prefix(static_cast<std::size_t>(written));
      } else if (errno != EINTR) {
        std::cerr << "cannot write the trace to " << path_ << ": " << std::strerror(errno) << '\n';
        Stop();
        return;
      }
    }
    buffer_.clear();
  }

  void Stop() {
    enabled_ = false;
    if (file_ >= 0) close(file_);
    file_ = -1;
  }

  const char* const path_ = std::getenv("ZORVIX_TRACE");
  const pid_t process_ = getpid();
  std::atomic<bool> enabled_{false};  // becomes false under the mutex, except in a child
  std::mutex mutex_;                  // guards all below
  std::string buffer_;
  std::map<pid_t, std::string> names_;  // of threads that have traced and still run
  bool has_traced_ = false;
  int file_ = -1;
};

// Runs after the destructors of static objects, which may trace.
__attribute__((destructor)) void FinishTrace() { Trace::Instance().Finish(); }

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

bool ATrace_isEnabled() { return Trace::Instance().enabled(); }

void ATrace_beginSection(const char* name) {
  if (!ATrace_isEnabled()) return;
  ++open_sections;
  Trace::Instance().Add('B', [name](std::string& event) {
    event += R"(,"name":)";
    AppendString(event, name);
  });
}

// Ignored where no section is open.
void ATrace_endSection() {
  if (open_sections == 0) return;
  --open_sections;
  Trace::Instance().Add('E', [](std::string&) {});
}

void ATrace_setCounter(const char* name, std::int64_t value) {
  if (!ATrace_isEnabled()) return;
  Trace::Instance().Add('C', [name, value](std::string& event) {
    event += R"(,"name":)";
    AppendString(event, name);
    event += R"(,"args":{"value":)";
    AppendNumber(event, value);
    event += '}';
  });
}

}  // extern "C"
#pragma GCC visibility pop
