#include "direct.h"

#include <typeinfo>

namespace zorvix::detail {
namespace {

template <typename Base>
class Copied final : public Base {
 public:
  explicit Copied(const std::exception& error) : text_(error.what()) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  const std::string text_;
};

}  // namespace

void Direct::ThrowCopy(const std::exception& error) {
  if (dynamic_cast<const std::bad_cast*>(&error) != nullptr) throw Copied<std::bad_cast>(error);
  throw Copied<std::exception>(error);
}

}  // namespace zorvix::detail
