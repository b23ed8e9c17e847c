// One of each kind of handle.
#include <zorvix/state.h>
#include <zorvix/typed.h>

#include <memory>
#include <optional>
#include <string>

#include "reading.h"

namespace {

const zorvix::Service<std::string, double> kCalibration{"calibration"};
const zorvix::State<Reading> kLastReading{"last reading"};

struct Handles {
  double last = 0;
  zorvix::Publisher<Reading> publisher{kReadings};
  zorvix::Subscriber<Reading> subscriber{kReadings,
                                         [this](const Reading& reading) { last = reading.value; }};
  zorvix::Server<std::string, double> server{kCalibration, [](const std::string&) { return 0.5; }};
  zorvix::Client<std::string, double> client{kCalibration};
  zorvix::Holder<Reading> holder{kLastReading};
  zorvix::Watcher<Reading> watcher{kLastReading,
                                   [this](const Reading& reading) { last = reading.value; }};
};

std::unique_ptr<Handles> handles;

}  // namespace

extern "C" void Start() { handles = std::make_unique<Handles>(); }

extern "C" void Use() {
  const double offset = handles->client.Call("thermometer").value_or(0);
  handles->publisher.Publish({"thermometer", 21.5 + offset});
  handles->holder.Set({"thermometer", 21.5 + offset});
}

extern "C" void Stop() { handles.reset(); }
