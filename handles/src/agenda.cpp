#include "agenda.h"

namespace zorvix::detail {

void Agenda::Reserve(std::size_t queues) {
  if (queues <= ring_.size()) return;
  std::vector<Entry> larger(2 * ring_.size());
  for (std::size_t i = 0; i < size_; ++i) larger[i] = at(i);
  ring_.swap(larger);
  mask_ = ring_.size() - 1;
  first_ = 0;
}

// Returns the index of the first entry whose turn is not lower.
std::size_t Agenda::Find(Turn turn) {
  std::size_t begin = 0;
  std::size_t end = size_;
  while (begin != end) {
    const std::size_t middle = begin + (end - begin) / 2;
    if (at(middle).turn < turn) {
      begin = middle + 1;
    } else {
      end = middle;
    }
  }
  return begin;
}

void Agenda::Insert(const Entry& entry) noexcept {
  if (entry.turn < front().turn) {
    first_ = (first_ - 1) & mask_;
    ++size_;
    at(0) = entry;
    return;
  }
  const std::size_t index = Find(entry.turn);
  for (std::size_t i = size_; i > index; --i) at(i) = at(i - 1);
  at(index) = entry;
  ++size_;
}

void Agenda::Remove(Turn turn) noexcept {
  if (front().turn == turn) {
    PopFront();
    return;
  }
  for (std::size_t i = Find(turn); i + 1 < size_; ++i) at(i) = at(i + 1);
  --size_;
}

}  // namespace zorvix::detail
