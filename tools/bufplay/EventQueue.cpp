#include "EventQueue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <system_error>
#include <utility>

EventQueue::EventQueue() : wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wakeFd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

EventQueue::~EventQueue() { close(wakeFd_); }

void EventQueue::push(SessionEvent event) {
  {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
  }
  const uint64_t one = 1;
  // The counter only saturates after 2^64 - 2 unread wake-ups; a failed write loses nothing.
  [[maybe_unused]] const ssize_t written = write(wakeFd_, &one, sizeof one);
}

std::deque<SessionEvent> EventQueue::drain() {
  uint64_t count = 0;
  [[maybe_unused]] const ssize_t got = read(wakeFd_, &count, sizeof count);
  std::lock_guard lock(mutex_);
  return std::exchange(events_, {});
}
