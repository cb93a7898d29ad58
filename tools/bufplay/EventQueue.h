// Hands events from the player's threads to the main loop. push may be called from any thread at
// any time (a delegate call on the queue's callback thread, a work-queue task, the producer); it
// never blocks for long and never calls back. The main loop polls fd() and then drains.
#pragma once

#include <deque>
#include <mutex>

#include "SessionEvent.h"

class EventQueue {
 public:
  EventQueue();
  ~EventQueue();
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  void push(SessionEvent event);
  // Readable while events wait; drain() makes it quiet again.
  int fd() const { return wakeFd_; }
  std::deque<SessionEvent> drain();

 private:
  const int wakeFd_;
  std::mutex mutex_;
  std::deque<SessionEvent> events_;  // guarded by mutex_
};
