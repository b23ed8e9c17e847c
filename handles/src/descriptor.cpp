#include "descriptor.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>

namespace zorvix::detail {

OwnedDescriptor::OwnedDescriptor(int fd, const char* function) : fd_(fd) {
  if (fd < 0) throw std::system_error(errno, std::generic_category(), function);
}

OwnedDescriptor::~OwnedDescriptor() { close(fd_); }

Descriptor::Descriptor(bool ready)
    : epoll_(epoll_create1(EPOLL_CLOEXEC), "epoll_create1"),
      event_(eventfd(ready, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "timerfd_create") {
  Watch(event_);
  Watch(timer_);
}

void Descriptor::Watch(const OwnedDescriptor& watched) {
  epoll_event readable = {};
  readable.events = EPOLLIN;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, watched.get(), &readable) != 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }
}

void Descriptor::SetReady(bool ready) {
  eventfd_t count = 1;
  if (ready) {
    eventfd_write(event_.get(), count);
  } else {
    eventfd_read(event_.get(), &count);
  }
}

void Descriptor::SetTimer(Clock::time_point time) {
  if (time == time_) return;
  time_ = time;
  itimerspec setting = {};  // switches it off
  if (time != kNever) {
    const auto since_start = time.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_start);
    setting.it_value.tv_sec = static_cast<std::time_t>(seconds.count());
    setting.it_value.tv_nsec = static_cast<long>((since_start - seconds).count());
  }
  timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

}  // namespace zorvix::detail
