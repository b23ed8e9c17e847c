// One typed subscriber with direct delivery.
#include <zorvix/typed.h>

#include <optional>

#include "reading.h"

namespace {

double last = 0;
std::optional<zorvix::Subscriber<Reading>> subscriber;

}  // namespace

extern "C" void Start() {
  subscriber.emplace(kReadings, [](const Reading& reading) { last = reading.value; });
}

extern "C" void Stop() { subscriber.reset(); }
