// Both queues are created on first use and never destroyed: their threads are detached and may
// still be waiting for work while the process exits, so nothing they touch may be torn down.
#include "Audio/Platform/Dispatch.h"

#include <chrono>
#include <cstdint>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

struct DispatchQueue {
  virtual ~DispatchQueue() = default;
  virtual void post(std::function<void()> task) = 0;

  // Waits until no task is queued or running; returns how many tasks had been posted by then, or
  // nothing at the deadline.
  std::optional<uint64_t> waitUntilIdle(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    if (!idle_.wait_until(lock, deadline, [this] { return unfinished_ == 0; })) return std::nullopt;
    return posted_;
  }

 protected:
  // Caller holds mutex_.
  void queue(std::function<void()> task) {
    tasks_.push_back(std::move(task));
    ++unfinished_;
    ++posted_;
  }
  // Caller holds mutex_, which is released while the task runs. The task's captures are released
  // before it counts as finished, and outside the lock.
  void runNext(std::unique_lock<std::mutex>& lock) {
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
    if (--unfinished_ == 0) idle_.notify_all();
  }

  std::mutex mutex_;
  std::deque<std::function<void()>> tasks_;  // guarded by mutex_

 private:
  std::condition_variable idle_;
  size_t unfinished_ = 0;  // tasks queued or running; guarded by mutex_
  uint64_t posted_ = 0;    // guarded by mutex_
};

namespace {

using namespace std::chrono_literals;

// Concurrent queue on an elastic pool: a task never waits for a thread that is busy, because a
// new thread is started whenever there are more queued tasks than idle threads.
class ConcurrentQueue final : public DispatchQueue {
 public:
  void post(std::function<void()> task) override {
    std::unique_lock lock(mutex_);
    queue(std::move(task));
    if (tasks_.size() <= idle_) {
      wakeup_.notify_one();
      return;
    }
    if (threads_ < kMaxThreads) {
      ++threads_;
      std::thread([this] { work(); }).detach();
    }
  }

 private:
  static constexpr size_t kMaxThreads = 1024;
  static constexpr auto kIdleRetirement = 10s;

  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      ++idle_;
      const bool gotTask = wakeup_.wait_for(lock, kIdleRetirement, [this] { return !tasks_.empty(); });
      --idle_;
      if (!gotTask) {
        --threads_;
        return;
      }
      runNext(lock);
    }
  }

  std::condition_variable wakeup_;
  size_t idle_ = 0;                           // guarded by mutex_
  size_t threads_ = 0;                        // guarded by mutex_
};

// Serial queue: one thread, tasks in posting order.
class SerialQueue final : public DispatchQueue {
 public:
  SerialQueue() { std::thread([this] { work(); }).detach(); }

  void post(std::function<void()> task) override {
    std::lock_guard lock(mutex_);
    queue(std::move(task));
    wakeup_.notify_one();
  }

 private:
  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      wakeup_.wait(lock, [this] { return !tasks_.empty(); });
      runNext(lock);
    }
  }

  std::condition_variable wakeup_;
};

}  // namespace

dispatch_queue_t dispatch_get_global_queue(long, unsigned long) {
  static DispatchQueue* const queue = new ConcurrentQueue;
  return queue;
}

dispatch_queue_t dispatch_get_main_queue() {
  static DispatchQueue* const queue = new SerialQueue;
  return queue;
}

void dispatch_async(dispatch_queue_t queue, std::function<void()> task) { queue->post(std::move(task)); }

bool dispatch_wait_until_idle(double timeoutSeconds) {
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(timeoutSeconds));
  // A task of one queue may post to the other: both are idle once two rounds of waits in a row saw
  // no task posted to either.
  std::optional<uint64_t> before[2];
  for (;;) {
    const std::optional<uint64_t> now[2] = {dispatch_get_global_queue(0, 0)->waitUntilIdle(deadline),
                                            dispatch_get_main_queue()->waitUntilIdle(deadline)};
    if (!now[0] || !now[1]) return false;
    if (before[0] == now[0] && before[1] == now[1]) return true;
    before[0] = now[0];
    before[1] = now[1];
  }
}

void sleepForTimeInterval(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}
