// Storage for pending messages.
#ifndef ZORVIX_HANDLES_FIFO_H_
#define ZORVIX_HANDLES_FIFO_H_

#include <cstddef>
#include <list>
#include <memory>

namespace zorvix::detail {

// Raw elements of one size, first in first out, in blocks of memory. It grows without moving
// elements and frees blocks that are used up, but for one. Whoever pops an element must first take
// what is in it.
//
// Invariant: the elements lie one after the other from `first_` on, block by block, up to `next_`.
class Fifo {
 public:
  // Elements are aligned for their size if this is a power of two, or a multiple of 16.
  Fifo(std::size_t element_size, std::size_t elements_of_block)
      : element_size_(element_size), block_size_(element_size * elements_of_block) {}
  Fifo(const Fifo&) = delete;
  Fifo& operator=(const Fifo&) = delete;

  std::size_t size() const { return size_; }

  // Allocates memory for one more element, if need be. Throws std::bad_alloc.
  void MakeRoom() {
    if (next_ == end_of_last_) AddBlock();
  }
  // Where the next element is to be written, after MakeRoom. Push then adds it.
  void* next() const { return next_; }
  void Push() noexcept {
    next_ += element_size_;
    ++size_;
  }
  void* front() const { return first_; }
  void Pop() noexcept {
    --size_;
    first_ += element_size_;
    if (size_ == 0) {
      UseLastBlockAgain();
    } else if (first_ == end_of_first_) {
      LeaveBlock();
    }
  }

  void Swap(Fifo& other) noexcept;

 private:
  using Block = std::unique_ptr<unsigned char[]>;

  void AddBlock();
  void LeaveBlock() noexcept;
  void UseLastBlockAgain() noexcept {
    while (end_of_first_ != end_of_last_) LeaveBlock();
    first_ = end_of_last_ - block_size_;
    next_ = first_;
  }

  std::size_t element_size_;
  std::size_t block_size_;
  std::size_t size_ = 0;
  unsigned char* first_ = nullptr;
  unsigned char* end_of_first_ = nullptr;
  unsigned char* next_ = nullptr;
  unsigned char* end_of_last_ = nullptr;
  std::list<Block> blocks_;
  std::list<Block> spare_;  // at most one
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_FIFO_H_
