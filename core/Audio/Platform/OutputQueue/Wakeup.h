// An event count: threads wait for the count to move past a value they saw, any thread moves it.
//
// notify() is real-time safe (an atomic increment, and a futex wake only while a thread waits), so
// the device callback may call it. Waiter and notifier each store then load sequentially
// consistent, so either the waiter sees the new count or the notifier sees the waiter; the futex
// compares the count again in the kernel, so a notify between the two never gets lost.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdint>

class Wakeup {
 public:
  // Any thread.
  uint32_t sequence() const { return sequence_.load(std::memory_order_seq_cst); }

  // Any thread; real-time safe. Wakes every waiter.
  void notify() { notifyUpTo(INT_MAX); }
  // Any thread; real-time safe. Wakes one waiter: for waiters that each take one piece of work and
  // look for more before they wait again.
  void notifyOne() { notifyUpTo(1); }

  // Blocks until the count differs from `seen`; returns at once when it already does.
  void waitPast(uint32_t seen) {
    waiters_.fetch_add(1, std::memory_order_seq_cst);
    while (sequence_.load(std::memory_order_seq_cst) == seen) {
      syscall(SYS_futex, futexWord(), FUTEX_WAIT_PRIVATE, seen, nullptr, nullptr, 0);
    }
    waiters_.fetch_sub(1, std::memory_order_seq_cst);
  }

 private:
  void notifyUpTo(int waiters) {
    sequence_.fetch_add(1, std::memory_order_seq_cst);
    if (waiters_.load(std::memory_order_seq_cst) != 0) {
      syscall(SYS_futex, futexWord(), FUTEX_WAKE_PRIVATE, waiters, nullptr, nullptr, 0);
    }
  }

  static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) && std::atomic<uint32_t>::is_always_lock_free);
  uint32_t* futexWord() { return reinterpret_cast<uint32_t*>(&sequence_); }

  std::atomic<uint32_t> sequence_{0};
  std::atomic<uint32_t> waiters_{0};
};
