// One typed subscriber with an inbox.
#include <zorvix/typed.h>

#include <optional>

#include "reading.h"

namespace {

double last = 0;
std::optional<zorvix::Inbox> inbox;
std::optional<zorvix::Subscriber<Reading>> subscriber;

}  // namespace

extern "C" void Start() {
  inbox.emplace();
  subscriber.emplace(
      kReadings, [](const Reading& reading) { last = reading.value; }, *inbox);
}

extern "C" void Drain() { inbox->Drain(); }

extern "C" void Stop() {
  subscriber.reset();
  inbox.reset();
}
