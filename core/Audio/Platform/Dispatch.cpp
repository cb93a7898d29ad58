// Both queues are created on first use and never destroyed: their threads are detached and may
// still be waiting for work while the process exits, so nothing they touch may be torn down.
#include "Audio/Platform/Dispatch.h"

#include <pthread.h>

#include <chrono>
#include <cstdint>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <system_error>
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

// Concurrent queue on an elastic pool. Hand-offs are cheap: up to kEagerThreads tasks at once get
// a thread at once (an idle one woken, or a new one); past that, a task waits for a worker that
// finishes its task and takes the next itself, without waking another. A monitor adds a thread when
// tasks wait and none has been taken for kStall, so that tasks that block (sleep, wait on a
// condition) never starve the others for longer than that.
class ConcurrentQueue final : public DispatchQueue {
 public:
  void post(std::function<void()> task) override {
    std::unique_lock lock(mutex_);
    queue(std::move(task));
    if (running_ + tasks_.size() <= kEagerThreads) {
      if (idle_ + starting_ >= tasks_.size()) {
        wakeup_.notify_one();
      } else {
        addThread();
      }
      return;
    }
    if (monitorArmed_) return;
    if (monitorStarted_) {
      monitorArmed_ = true;
      monitorWakeup_.notify_one();
      return;
    }
    try {
      std::thread([this] { monitor(); }).detach();
      monitorStarted_ = monitorArmed_ = true;
    } catch (const std::system_error&) {
      // Out of threads: the task waits for a busy worker; the next post tries again.
    }
  }

 private:
  static constexpr size_t kMaxThreads = 1024;
  static constexpr size_t kEagerThreads = 2;
  static constexpr auto kStall = 5ms;
  static constexpr auto kIdleRetirement = 10s;

  // Caller holds mutex_.
  void addThread() {
    if (threads_ >= kMaxThreads) return;
    try {
      std::thread([this] { work(); }).detach();
    } catch (const std::system_error&) {
      return;  // out of threads: the task waits for a busy one, or the monitor's next try
    }
    ++threads_;
    ++starting_;
  }

  void work() {
    // Named, so that a profile tells these threads from the render threads they may have been
    // started by (a thread inherits its creator's name).
    pthread_setname_np(pthread_self(), "work-queue");
    std::unique_lock lock(mutex_);
    --starting_;
    for (;;) {
      if (tasks_.empty()) {
        ++idle_;
        const bool gotTask = wakeup_.wait_for(lock, kIdleRetirement, [this] { return !tasks_.empty(); });
        --idle_;
        if (!gotTask) {
          --threads_;
          return;
        }
      }
      ++running_;
      ++taken_;
      runNext(lock);
      --running_;
    }
  }

  void monitor() {
    pthread_setname_np(pthread_self(), "work-monitor");
    std::unique_lock lock(mutex_);
    for (;;) {
      monitorWakeup_.wait(lock, [this] { return monitorArmed_; });
      const uint64_t takenBefore = taken_;
      const auto deadline = std::chrono::steady_clock::now() + kStall;
      while (std::chrono::steady_clock::now() < deadline) {
        monitorWakeup_.wait_until(lock, deadline);
      }
      if (tasks_.empty()) {
        monitorArmed_ = false;
      } else if (taken_ == takenBefore) {
        if (idle_ + starting_ > 0) {
          wakeup_.notify_one();
        } else {
          addThread();
        }
      }
    }
  }

  std::condition_variable wakeup_;
  std::condition_variable monitorWakeup_;
  // --- guarded by mutex_ ---
  size_t idle_ = 0;      // threads waiting for a task
  size_t starting_ = 0;  // threads started that have not looked for a task yet
  size_t running_ = 0;   // tasks running
  size_t threads_ = 0;
  uint64_t taken_ = 0;   // tasks taken so far
  bool monitorStarted_ = false;
  bool monitorArmed_ = false;  // tasks wait past the eager threads: the monitor watches them
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
    pthread_setname_np(pthread_self(), "main-queue");
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
