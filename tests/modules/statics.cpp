// Has static handles, which are destroyed inside dlclose.
#include <zorvix/state.h>

#include "payload.h"

namespace {

zorvix::Holder holder(zorvix::State<Reading>{"state"});
const bool is_set = [] {
  holder.Set({"a unit too long to be stored inside a string", 7});
  return true;
}();
const zorvix::Subscriber subscriber(
    zorvix::Topic<std::string>{"text"}, [](const std::string&) {}, zorvix::Delivery::Queued);

}  // namespace
