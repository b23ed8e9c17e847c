// Reads load and CPU times of this machine ten times a second and publishes them.
#include <condition_variable>
#include <cstdio>
#include <fstream>

#include "demo.h"

namespace {

double ReadLoad() {
  double load = 0;
  if (!(std::ifstream("/proc/loadavg") >> load)) {
    std::fputs("sampler: /proc/loadavg cannot be read\n", stderr);
  }
  return load;
}

// In ticks since the machine started.
struct CpuTimes {
  double busy = 0, idle = 0;
};

CpuTimes ReadCpuTimes() {
  std::ifstream file("/proc/stat");
  std::string label;
  double user = 0, nice = 0, system = 0, idle = 0, iowait = 0;
  if (!(file >> label >> user >> nice >> system >> idle >> iowait)) {
    std::fputs("sampler: /proc/stat cannot be read\n", stderr);
  }
  return {user + nice + system, idle + iowait};
}

class Sampler {
 public:
  ~Sampler() { Finish(); }

  // Ends the thread and returns how many samples it sent.
  int Finish() {
    {
      const std::lock_guard lock(mutex_);
      stop_ = true;
    }
    stopping_.notify_all();
    if (thread_.joinable()) thread_.join();
    return sent_;
  }

 private:
  bool WaitForStop() {
    std::unique_lock lock(mutex_);
    return stopping_.wait_for(lock, std::chrono::milliseconds(100), [this] { return stop_; });
  }

  void Run() {
    auto before = ReadCpuTimes();
    while (!WaitForStop()) {
      const auto now = ReadCpuTimes();
      const double busy = now.busy - before.busy, all = busy + now.idle - before.idle;
      before = now;
      samples_.Publish(
          {++sent_, ReadLoad(), all > 0 ? 100 * busy / all : 0, std::this_thread::get_id()});
    }
  }

  int sent_ = 0;
  std::mutex mutex_;
  std::condition_variable stopping_;
  bool stop_ = false;
  const zorvix::Publisher<demo::Sample> samples_{demo::kSamples};
  std::thread thread_{[this] { Run(); }};
  const zorvix::Server<demo::Ask, int> finishing_{demo::kFinish,
                                                  [this](auto&) { return Finish(); }};
};

std::optional<Sampler> sampler;

}  // namespace

void ModuleStart(double) { sampler.emplace(); }

void ModuleStop() { sampler.reset(); }
