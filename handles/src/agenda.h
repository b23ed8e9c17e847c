// Whose turn is next in a strand.
#ifndef ZORVIX_HANDLES_AGENDA_H_
#define ZORVIX_HANDLES_AGENDA_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zorvix::detail {

class Queue;

// A number that each pending message takes when it arrives. 0 stands for none.
using Turn = std::uint64_t;

// At most one entry for each queue, that of its oldest turn, sorted by turn. Since arriving
// messages take the highest turn, entries are nearly always added at the end.
class Agenda {
 public:
  struct Entry {
    Turn turn;
    Queue* queue;
  };

  // Makes room for the entries of that many queues, so that Add cannot fail.
  void Reserve(std::size_t queues);

  bool empty() const { return size_ == 0; }
  const Entry& front() const { return ring_[first_]; }

  void Add(const Entry& entry) noexcept {
    if (size_ != 0 && entry.turn < at(size_ - 1).turn) {
      Insert(entry);
      return;
    }
    at(size_) = entry;
    ++size_;
  }
  void PopFront() noexcept {
    first_ = (first_ + 1) & (ring_.size() - 1);
    --size_;
  }
  void Remove(Turn turn) noexcept;

 private:
  Entry& at(std::size_t index) { return ring_[(first_ + index) & (ring_.size() - 1)]; }
  std::size_t Find(Turn turn);
  void Insert(const Entry& entry) noexcept;

  std::vector<Entry> ring_;  // a power of two of them, or none
  std::size_t first_ = 0;
  std::size_t size_ = 0;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_AGENDA_H_
