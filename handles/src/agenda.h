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

  void Add(Turn turn, Queue* queue) noexcept {
    if (size_ != 0 && turn < at(size_ - 1).turn) {
      Insert({turn, queue});
      return;
    }
    // Not as one assignment, for which the entry would go through memory.
    Entry& entry = at(size_);
    entry.turn = turn;
    entry.queue = queue;
    ++size_;
  }
  void PopFront() noexcept {
    first_ = (first_ + 1) & mask_;
    --size_;
  }
  // Gives the first entry a later turn.
  void PostponeFront(Turn turn) noexcept {
    if (size_ == 1 || turn < at(1).turn) {
      at(0).turn = turn;
    } else {
      Queue* const queue = front().queue;
      PopFront();
      Add(turn, queue);
    }
  }
  void Remove(Turn turn) noexcept;

 private:
  Entry& at(std::size_t index) { return ring_[(first_ + index) & mask_]; }
  std::size_t Find(Turn turn);
  void Insert(const Entry& entry) noexcept;

  std::vector<Entry> ring_{1};  // a power of two of them
  std::size_t mask_ = 0;        // their number less 1
  std::size_t first_ = 0;
  std::size_t size_ = 0;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_AGENDA_H_
