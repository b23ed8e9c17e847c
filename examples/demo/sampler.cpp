// Publishes twenty times a second how busy the CPUs of this machine are, from a thread of its own.
#include <fstream>

#include "demo.h"

namespace {

class Sampler {
 public:
  Sampler() { demo::Say("sampler", "loaded: sends samples to whoever is there"); }
  ~Sampler() {
    stop_.set_value();
    thread_.join();
  }

 private:
  // In percent of the time since the call before.
  double ReadBusy() {
    std::ifstream file("/proc/stat");
    std::string label;
    double user = 0, nice = 0, system = 0, idle = 0, iowait = 0;
    if (!(file >> label >> user >> nice >> system >> idle >> iowait)) return 0;
    const double busy = user + nice + system, all = busy + idle + iowait;
    const double busy_since = busy - std::exchange(busy_, busy);
    const double all_since = all - std::exchange(all_, all);
    return all_since > 0 ? std::clamp(100 * busy_since / all_since, 0., 100.) : 0;
  }

  void Run() {
    const auto stop = stop_.get_future();
    int number = 0;
    while (stop.wait_for(std::chrono::milliseconds(50)) == std::future_status::timeout) {
      samples_.Publish({++number, ReadBusy(), std::this_thread::get_id()});
    }
    zorvix::Publisher(demo::kSent).Publish(number);
  }

  double busy_ = 0, all_ = 0;
  std::promise<void> stop_;
  const zorvix::Publisher<demo::Sample> samples_{demo::kSamples};
  std::thread thread_{[this] { Run(); }};
};

}  // namespace

void ModuleLoad(std::shared_ptr<void>& module) { module = std::make_shared<Sampler>(); }
