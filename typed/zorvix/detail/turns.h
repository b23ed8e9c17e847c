// Whose message is next: the order in which a mailbox invokes callables. Not for users.
#ifndef ZORVIX_DETAIL_TURNS_H_
#define ZORVIX_DETAIL_TURNS_H_

#include <zorvix/detail/base.h>

namespace zorvix {
namespace detail ZORVIX_HIDDEN {

class Queue;

// A ring of turns. A push into a slot that was reserved needs no allocation.
class Turns {
 public:
  std::size_t size() const { return size_; }
  Queue* front() const { return slots_[first_]; }

  // Makes room for one turn more than those that are there and those that are reserved.
  void MakeRoom() {
    if (size_ + reserved_ < slots_.size()) return;
    std::vector<Queue*> larger(std::max<std::size_t>(2 * slots_.size(), 8));
    for (std::size_t i = 0; i < size_; ++i) larger[i] = slots_[Slot(i)];
    slots_.swap(larger);
    first_ = 0;
  }
  void Reserve() {
    MakeRoom();
    ++reserved_;
  }
  void Unreserve(std::size_t count) { reserved_ -= count; }
  // There must be room: made just before, or reserved.
  void Push(Queue* queue) noexcept {
    slots_[Slot(size_)] = queue;
    ++size_;
  }
  void Pop() noexcept {
    first_ = Slot(1);
    --size_;
  }
  // Removes all turns of the queue. Returns how many of them were among the first `count`.
  std::size_t Remove(const Queue* queue, std::size_t count) noexcept {
    std::size_t kept = 0;
    std::size_t removed_early = 0;
    for (std::size_t i = 0; i < size_; ++i) {
      if (slots_[Slot(i)] != queue) {
        slots_[Slot(kept++)] = slots_[Slot(i)];
      } else if (i < count) {
        ++removed_early;
      }
    }
    size_ = kept;
    return removed_early;
  }

 private:
  std::size_t Slot(std::size_t index) const { return (first_ + index) & (slots_.size() - 1); }

  std::vector<Queue*> slots_;  // a power of two of them, or none
  std::size_t first_ = 0;
  std::size_t size_ = 0;
  std::size_t reserved_ = 0;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_TURNS_H_
