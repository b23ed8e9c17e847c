// Reads load and CPU times of this machine ten times a second and publishes them.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>

#include "demo.h"

using bridge::BridgeType;
using bridge::Zorvix;

namespace {

demo::Endpoint at_once, queued, finish;
int sent = 0;
std::thread thread;
std::mutex mutex;
std::condition_variable stopping;
bool stop = false;

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

void Run() {
  auto before = ReadCpuTimes();
  const auto wait_for_stop = [] {
    std::unique_lock lock(mutex);
    return stopping.wait_for(lock, std::chrono::milliseconds(100), [] { return stop; });
  };
  while (!wait_for_stop()) {
    const auto now = ReadCpuTimes();
    const double busy = now.busy - before.busy, all = busy + now.idle - before.idle;
    before = now;
    const demo::Sample sample{++sent, ReadLoad(), all > 0 ? 100 * busy / all : 0,
                              std::this_thread::get_id()};
    Zorvix::GetInstance().Publish(at_once, sample);
    Zorvix::GetInstance().Publish(queued, sample);
  }
}

// Ends the thread and returns how many samples it sent.
int Finish() {
  {
    const std::lock_guard lock(mutex);
    stop = true;
  }
  stopping.notify_all();
  if (thread.joinable()) thread.join();
  return sent;
}

}  // namespace

void ModuleStart(double) {
  auto& bridge = Zorvix::GetInstance();
  at_once = demo::Topic("sample", BridgeType::Sync);
  queued = demo::Topic("sample", BridgeType::Async);
  finish = demo::Service("finish", BridgeType::Sync);
  bridge.RegisterPublisher(at_once);
  bridge.RegisterPublisher(queued);
  bridge.RegisterServer(finish,
                        std::make_shared<demo::Server>(
                            [](const std::any&, std::any& response) { response = Finish(); }));
  thread = std::thread(Run);
}

void ModuleStop() {
  auto& bridge = Zorvix::GetInstance();
  Finish();
  bridge.UnregisterServer(finish, 0);
  bridge.UnregisterPublisher(at_once);
  bridge.UnregisterPublisher(queued);
}
