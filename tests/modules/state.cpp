// Holds a state and watches it. Built twice, as two modules.
#include <zorvix/state.h>

#include "payload.h"

namespace {
const zorvix::State<Reading> kState{"state"};
std::optional<zorvix::Holder<Reading>> holder;
std::optional<zorvix::Watcher<Reading>> watcher;
}  // namespace

void Hold(int value) {
  if (!holder) holder.emplace(kState);
  holder->Set({"a unit too long to be stored inside a string", value});
}

int Watch() {
  if (!watcher) watcher.emplace(kState);
  return watcher->Newest() ? watcher->Newest()->value : 0;
}

void Leave() {
  holder.reset();
  watcher.reset();
}
