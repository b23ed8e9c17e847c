// Direct delivery.
#ifndef ZORVIX_HANDLES_DIRECT_H_
#define ZORVIX_HANDLES_DIRECT_H_

#include <any>
#include <exception>
#include <utility>

#include "endpoint.h"
#include "gate.h"
#include "records.h"

namespace zorvix::detail {

// Invokes a callable on the thread that delivers, until it is closed.
class Direct final : public Receiver {
 public:
  Direct(const char* its_kind, const Endpoint& endpoint, const MessageType& its_type,
         Callable callable)
      : Receiver(its_kind, endpoint.name, endpoint.module),
        type(its_type),
        callable_(std::move(callable)) {
    message_type = type.type;
  }

  Gate& gate() { return gate_; }
  // What follows is to be called with a pass.

  // Returns null for a value of another type.
  const void* Find(const std::any& any) const { return type.find(any); }
  [[noreturn]] void Reject(const char* what, const TypeMismatch::Side& given,
                           const TypeMismatch::Side& wanted) {
    rejected.Add();
    throw TypeMismatch(what, given, wanted);
  }
  void Invoke(const void* message, CurrentReply* reply) {
    const Measured measured(*this);
    try {
      callable_(message, reply);
    } catch (const std::exception& error) {
      ThrowCopy(error);
    } catch (...) {
      KeepLoadedForException();
      throw;
    }
  }
  void Close() override { gate_.Close(*this, &callable_); }
  Counts Count() const override {
    Counts counts;
    counts.received = invocations.Get();
    return counts;
  }

  const MessageType& type;

 private:
  Gate gate_;
  Callable callable_;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_DIRECT_H_
