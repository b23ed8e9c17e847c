// Holds a state or watches it. Built twice, as two modules that each may do both.
#include <zorvix/state.h>

#include "payload.h"

namespace {

const zorvix::State<Reading> kState{"state"};
std::optional<zorvix::Holder<Reading>> holder;
std::optional<zorvix::Watcher<Reading>> watcher;
int seen = 0;

}  // namespace

void Hold(int value) {
  if (!holder) holder.emplace(kState);
  holder->Set({"a unit too long to be stored inside a string", value});
}

void Watch() {
  watcher.emplace(kState, [](const Reading& reading) { seen = reading.value; });
}

int Seen() { return watcher->Newest() && watcher->Newest()->value == seen ? seen : 0; }

void Leave() {
  holder.reset();
  watcher.reset();
}
