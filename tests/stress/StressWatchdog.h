// The stress test's hang detector. Every thread of the test says what it is doing in a log line of
// its own and bumps one progress counter whenever anything moves (a chunk taken, a sentence ended, a
// delegate call, a transport operation). When the counter stands still for kStall the watchdog
// prints every thread's stack (through gdb, when the machine has it), then the test's own lines, and
// aborts: a deadlock fails the run instead of hanging it until ctest's timeout.
#pragma once

#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

extern char** environ;

namespace stress_test {

// What one thread of the test did last. Written by that thread only, read by the watchdog.
struct ThreadLog {
  std::atomic<const char*> who{nullptr};
  std::atomic<const char*> operation{"idle"};
  std::atomic<int> slot{-1};
  std::atomic<const char*> subject{""};  // the sentence's file, say

  void doing(const char* what, int onSlot = -1, const char* about = "") {
    slot.store(onSlot);
    subject.store(about);
    operation.store(what);
  }
};

class StressWatchdog {
 public:
  static constexpr auto kStall = std::chrono::seconds(10);
  static constexpr size_t kMaxThreads = 16;

  StressWatchdog() {
    // gdb runs as a child of this process and attaches to it, which Yama's default scope refuses.
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    thread_ = std::thread([this] { watch(); });
  }
  ~StressWatchdog() {
    {
      std::lock_guard lock(mutex_);
      done_ = true;
    }
    wakeup_.notify_all();
    thread_.join();
  }
  StressWatchdog(const StressWatchdog&) = delete;
  StressWatchdog& operator=(const StressWatchdog&) = delete;

  void progress() { progress_.fetch_add(1, std::memory_order_relaxed); }

  // Adds to the report what only the test knows (the players' state, say); null for nothing.
  void describeStateWith(std::function<void()> describe) {
    std::lock_guard lock(mutex_);
    describe_ = std::move(describe);
  }

  // A log line for a thread of the test; valid as long as the watchdog.
  ThreadLog& log(const char* who) {
    ThreadLog& line = logs_.at(logsUsed_.fetch_add(1));
    line.who.store(who);
    return line;
  }

 private:
  void watch() {
    std::unique_lock lock(mutex_);
    uint64_t seen = progress_.load();
    auto lastMove = std::chrono::steady_clock::now();
    while (!wakeup_.wait_for(lock, std::chrono::seconds(1), [this] { return done_; })) {
      const uint64_t now = progress_.load();
      if (now != seen) {
        seen = now;
        lastMove = std::chrono::steady_clock::now();
      } else if (std::chrono::steady_clock::now() - lastMove > kStall) {
        reportStallAndAbort();
      }
    }
  }

  // Caller holds mutex_.
  [[noreturn]] void reportStallAndAbort() {
    std::fprintf(stderr, "\nstress: no progress for %lld s: deadlock or a sentence that never ends\n",
                 static_cast<long long>(kStall.count()));
    const std::string pid = std::to_string(getpid());
    const char* const argv[] = {"gdb", "-p", pid.c_str(), "-batch", "-ex", "thread apply all bt", nullptr};
    pid_t gdb = 0;
    if (posix_spawnp(&gdb, "gdb", nullptr, nullptr, const_cast<char* const*>(argv), environ) == 0) {
      waitpid(gdb, nullptr, 0);
    } else {
      std::fprintf(stderr, "stress: gdb is not available; the test's own log follows\n");
    }
    for (size_t i = 0; i < logsUsed_.load() && i < logs_.size(); ++i) {
      const ThreadLog& line = logs_[i];
      std::fprintf(stderr, "stress: %-10s slot %2d: %s %s\n", line.who.load(), line.slot.load(), line.operation.load(),
                   line.subject.load());
    }
    if (describe_) describe_();
    std::fflush(stderr);
    std::abort();
  }

  std::atomic<uint64_t> progress_{0};
  std::array<ThreadLog, kMaxThreads> logs_;
  std::atomic<size_t> logsUsed_{0};
  std::mutex mutex_;
  std::condition_variable wakeup_;
  bool done_ = false;                // guarded by mutex_
  std::function<void()> describe_;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace stress_test
