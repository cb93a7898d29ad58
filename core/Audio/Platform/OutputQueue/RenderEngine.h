// The process's render engine: a small fixed number of threads that run the passes of every output
// queue's RenderJob, so that threads do not grow with the number of queues. A pass never waits on a
// client: callbacks are delivered elsewhere (OutputQueueDelivery.cpp).
//
// Jobs asked for arrive on a lock-free list (the real-time side pushes, without allocating); the
// render threads move them to a list of their own under a mutex that only they take, and take them
// in the order they were asked for. The threads are detached and live as long as the process.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <mutex>

#include "Audio/Platform/OutputQueue/RenderJob.h"
#include "Audio/Platform/OutputQueue/Wakeup.h"

class RenderEngine {
 public:
  // Never destroyed: its threads may still be waiting while the process exits.
  static RenderEngine& instance();

  // Any thread; real-time safe. `job` is Scheduled and in no list.
  void schedule(RenderJob& job) noexcept;

 private:
  static constexpr size_t kThreads = 2;

  RenderEngine();
  void work();
  // Render thread: the next job asked for, or null.
  RenderJob* take();
  // Render thread: one pass of `job`, and what follows from its end.
  void run(RenderJob& job);

  std::atomic<RenderJob*> arrived_{nullptr};  // newest first
  Wakeup wakeup_;
  std::mutex mutex_;
  std::deque<RenderJob*> ready_;  // oldest first; guarded by mutex_
};
