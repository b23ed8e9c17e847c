// Measures how busy the CPUs are and publishes it twenty times a second, from a thread of its own.
#include <chrono>
#include <fstream>
#include <future>
#include <utility>

#include "demo.h"

namespace {

class Sampler {
 public:
  Sampler() { demo::Say("sampler", "loaded, and publishes samples"); }
  ~Sampler() {
    stop_.set_value();
    thread_.join();
  }

 private:
  struct CpuTimes {
    double user = 0;
    double nice = 0;
    double system = 0;
    double idle = 0;
    double iowait = 0;

    double busy() const { return user + nice + system; }
    double all() const { return busy() + idle + iowait; }
  };

  // Returns percent of the time since the previous call.
  double ReadBusy() {
    std::ifstream file("/proc/stat");
    std::string label;
    CpuTimes now;
    if (!(file >> label >> now.user >> now.nice >> now.system >> now.idle >> now.iowait)) return 0;
    const CpuTimes before = std::exchange(times_, now);
    const double elapsed = now.all() - before.all();
    if (elapsed <= 0) return 0;
    return std::clamp(100 * (now.busy() - before.busy()) / elapsed, 0., 100.);
  }

  void Run() {
    demo::NameThread("sampler");
    const auto stop = stop_.get_future();
    int number = 0;
    while (stop.wait_for(std::chrono::milliseconds(50)) == std::future_status::timeout) {
      ++number;
      samples_.Publish({number, ReadBusy(), std::this_thread::get_id()});
    }
    zorvix::Publisher(demo::kSent).Publish(number);
  }

  CpuTimes times_;
  std::promise<void> stop_;
  const zorvix::Publisher<demo::Sample> samples_{demo::kSamples};
  std::thread thread_{[this] { Run(); }};
};

}  // namespace

void ModuleLoad(std::shared_ptr<void>& module) { module = std::make_shared<Sampler>(); }
