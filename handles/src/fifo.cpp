#include "fifo.h"

#include <utility>

namespace zorvix::detail {

void Fifo::AddBlock() {
  if (spare_.empty()) spare_.push_back(Block(new unsigned char[block_size_]));
  blocks_.splice(blocks_.end(), spare_);
  next_ = blocks_.back().get();
  end_of_last_ = next_ + block_size_;
  if (size_ == 0) {
    first_ = next_;
    end_of_first_ = end_of_last_;
  }
}

// The first block is used up, and there is another one.
void Fifo::LeaveBlock() noexcept {
  if (spare_.empty()) {
    spare_.splice(spare_.end(), blocks_, blocks_.begin());
  } else {
    blocks_.pop_front();
  }
  first_ = blocks_.front().get();
  end_of_first_ = first_ + block_size_;
}

void Fifo::Swap(Fifo& other) noexcept {
  std::swap(element_size_, other.element_size_);
  std::swap(block_size_, other.block_size_);
  std::swap(size_, other.size_);
  std::swap(first_, other.first_);
  std::swap(end_of_first_, other.end_of_first_);
  std::swap(next_, other.next_);
  std::swap(end_of_last_, other.end_of_last_);
  blocks_.swap(other.blocks_);
  spare_.swap(other.spare_);
}

}  // namespace zorvix::detail
