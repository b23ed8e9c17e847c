// Rows of Inspect for what is no handle, such as an export to a broker. Not for users.
#ifndef ZORVIX_DETAIL_LISTING_H_
#define ZORVIX_DETAIL_LISTING_H_

#include <zorvix/detail/erasure.h>
#include <zorvix/zorvix.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace zorvix {
namespace detail ZORVIX_EXPORT {

struct Counts {
  std::size_t pending = 0;
  std::size_t depth = 0;  // 0: nothing is kept
  std::size_t dropped = 0;
  std::uint64_t sent = 0;
  std::uint64_t received = 0;
  std::uint64_t rejected = 0;
};

class ZORVIX_EXPORT Listing {
 public:
  // Inspect calls `count` on any thread, and no handle can be constructed or destroyed meanwhile.
  Listing(const char* kind, const std::string& name, Module& module, std::function<Counts()> count);
  // When it has returned, `count` is destroyed.
  ~Listing();
  Listing(const Listing&) = delete;
  Listing& operator=(const Listing&) = delete;

  // The next handle that this thread constructs has no row of its own: this one shows its
  // invocations. It must be destroyed before this object. One at a time.
  void AdoptNextHandle();

 private:
  struct Row;
  const std::unique_ptr<Row> row_;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_LISTING_H_
