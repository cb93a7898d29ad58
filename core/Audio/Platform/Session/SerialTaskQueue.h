// A serial queue on top of the global work queue: tasks run one after another, in posting order,
// each on some thread of the global queue's pool, never inside the call that posts them.
//
// Only one drain task is on the global queue at a time, so ordering needs no dedicated thread, and
// a blocking task holds back this queue alone.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

class SerialTaskQueue {
 public:
  // Any thread; returns at once.
  void post(std::function<void()> task);

 private:
  struct Pending {
    std::mutex mutex;
    std::deque<std::function<void()>> tasks;  // guarded by mutex
    bool draining = false;                    // guarded by mutex: a drain task is posted or running
  };
  // Runs on a thread of the global work queue until no task is left.
  static void drain(const std::shared_ptr<Pending>& pending);

  // Shared with the drain task, so that the queue may be destroyed while tasks are still pending.
  const std::shared_ptr<Pending> pending_ = std::make_shared<Pending>();
};
