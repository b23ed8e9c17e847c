// The descriptor of an inbox.
#ifndef ZORVIX_HANDLES_DESCRIPTOR_H_
#define ZORVIX_HANDLES_DESCRIPTOR_H_

#include "sync.h"

namespace zorvix::detail {

// A descriptor of the system.
class OwnedDescriptor {
 public:
  // Throws std::system_error, with the name of the function that has failed, if it is negative.
  OwnedDescriptor(int fd, const char* function);
  ~OwnedDescriptor();
  OwnedDescriptor(const OwnedDescriptor&) = delete;
  OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;

  int get() const { return fd_; }

 private:
  const int fd_;
};

// One descriptor for poll: readable while it is ready, or from a time on. An epoll of an eventfd
// and a timerfd.
class Descriptor {
 public:
  // Throws std::system_error.
  explicit Descriptor(bool ready);

  int fd() const { return epoll_.get(); }
  void SetReady(bool ready);
  // Replaces the time. kNever stands for none.
  void SetTimer(Clock::time_point time);

 private:
  void Watch(const OwnedDescriptor& watched);

  const OwnedDescriptor epoll_;
  const OwnedDescriptor event_;
  const OwnedDescriptor timer_;
  Clock::time_point time_ = kNever;
};

}  // namespace zorvix::detail

#endif  // ZORVIX_HANDLES_DESCRIPTOR_H_
