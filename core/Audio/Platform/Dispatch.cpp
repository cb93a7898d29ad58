// Both queues are created on first use and never destroyed: their threads are detached and may
// still be waiting for work while the process exits, so nothing they touch may be torn down.
#include "Audio/Platform/Dispatch.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

struct DispatchQueue {
  virtual ~DispatchQueue() = default;
  virtual void post(std::function<void()> task) = 0;
};

namespace {

using namespace std::chrono_literals;

// Concurrent queue on an elastic pool: a task never waits for a thread that is busy, because a
// new thread is started whenever there are more queued tasks than idle threads.
class ConcurrentQueue final : public DispatchQueue {
 public:
  void post(std::function<void()> task) override {
    std::unique_lock lock(mutex_);
    tasks_.push_back(std::move(task));
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
      std::function<void()> task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      task = nullptr;  // the task's captures are released outside the lock
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wakeup_;
  std::deque<std::function<void()>> tasks_;  // guarded by mutex_
  size_t idle_ = 0;                           // guarded by mutex_
  size_t threads_ = 0;                        // guarded by mutex_
};

// Serial queue: one thread, tasks in posting order.
class SerialQueue final : public DispatchQueue {
 public:
  SerialQueue() { std::thread([this] { work(); }).detach(); }

  void post(std::function<void()> task) override {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    wakeup_.notify_one();
  }

 private:
  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      wakeup_.wait(lock, [this] { return !tasks_.empty(); });
      std::function<void()> task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      task = nullptr;
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wakeup_;
  std::deque<std::function<void()>> tasks_;  // guarded by mutex_
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

void sleepForTimeInterval(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}
