#include "latest_queue.h"

#include <exception>

#include "inbox.h"

namespace zorvix::detail {
namespace {

class DirectStrand final : public Strand {
 public:
  explicit DirectStrand(Module& module) : Strand("direct", "", module) {}

 private:
  void AfterPush() override {
    std::exception_ptr first;
    while (ready()) {
      try {
        Drain();
      } catch (...) {
        if (first == nullptr) first = std::current_exception();
      }
    }
    if (first != nullptr) std::rethrow_exception(first);
  }
};

}  // namespace

std::shared_ptr<Strand> StrandOrDirect(const Place& place, const Endpoint& endpoint) {
  if (auto strand = StrandAt(place, endpoint)) return strand;
  return std::make_shared<DirectStrand>(endpoint.module);
}

}  // namespace zorvix::detail
