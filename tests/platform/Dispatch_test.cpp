// Plan: the work queues' promises.
// - The global queue runs many tasks that block at once: none waits for a busy thread (each task
//   here blocks until all of them are running).
// - The main queue runs its tasks one at a time, in posting order, on one thread that is not the
//   poster's; a task may post to it again.
// - Waiting until both queues are idle sees the end of a chain of tasks that post to each other.
// - A process exits (and runs its exit handlers) while tasks block on both queues and more wait.
// Not tested: the retirement of idle threads, which only shows as time passes.
#include "Audio/Platform/Dispatch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace {

constexpr auto kDeadline = std::chrono::seconds(30);

TEST(Dispatch, WaitUntilIdleSeesTheEndOfTasksPostingToEachOther) {
  auto hops = std::make_shared<std::atomic<int>>(0);
  std::function<void(int)> hop = [&hop, hops](int left) {
    hops->fetch_add(1);
    if (left > 0) {
      dispatch_async(left % 2 ? dispatch_get_main_queue() : dispatch_get_global_queue(0, 0), [&hop, left] { hop(left - 1); });
    }
  };
  dispatch_async(dispatch_get_global_queue(0, 0), [&hop] { hop(20); });
  ASSERT_TRUE(dispatch_wait_until_idle(30.0));
  EXPECT_EQ(hops->load(), 21);
}

TEST(Dispatch, GlobalQueueRunsManyBlockingTasksAtOnce) {
  constexpr int kTasks = 64;
  struct Rendezvous {
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0;   // guarded by mutex
    int finished = 0;  // guarded by mutex
  };
  auto rendezvous = std::make_shared<Rendezvous>();
  for (int i = 0; i < kTasks; ++i) {
    dispatch_async(dispatch_get_global_queue(0, 0), [rendezvous] {
      std::unique_lock lock(rendezvous->mutex);
      ++rendezvous->running;
      rendezvous->changed.notify_all();
      // A pool that made tasks wait for a busy thread would never get every task this far.
      if (rendezvous->changed.wait_for(lock, kDeadline, [&] { return rendezvous->running == kTasks; })) {
        ++rendezvous->finished;
        rendezvous->changed.notify_all();
      }
    });
  }
  std::unique_lock lock(rendezvous->mutex);
  EXPECT_TRUE(rendezvous->changed.wait_for(lock, kDeadline, [&] { return rendezvous->finished == kTasks; }))
      << rendezvous->running << " of " << kTasks << " tasks ran at once";
}

TEST(Dispatch, MainQueueRunsTasksInPostingOrderOnOneOtherThread) {
  constexpr int kTasks = 200;
  struct Run {
    int index;
    std::thread::id thread;
  };
  auto runs = std::make_shared<std::vector<Run>>();  // touched only by tasks of the main queue
  auto done = std::make_shared<std::promise<std::vector<Run>>>();
  for (int i = 0; i < kTasks; ++i) {
    dispatch_async(dispatch_get_main_queue(), [runs, i] { runs->push_back({i, std::this_thread::get_id()}); });
  }
  // Posted from a task of the queue itself, so it comes after everything above.
  dispatch_async(dispatch_get_main_queue(),
                 [runs, done] { dispatch_async(dispatch_get_main_queue(), [runs, done] { done->set_value(*runs); }); });
  std::future<std::vector<Run>> result = done->get_future();
  ASSERT_EQ(result.wait_for(kDeadline), std::future_status::ready);

  const std::vector<Run> order = result.get();
  ASSERT_EQ(order.size(), size_t(kTasks));
  for (int i = 0; i < kTasks; ++i) {
    EXPECT_EQ(order[i].index, i);
    EXPECT_EQ(order[i].thread, order[0].thread);
  }
  EXPECT_NE(order[0].thread, std::this_thread::get_id());
}

// The child starts tasks that never end on both queues, leaves more waiting behind them, and exits.
// The alarm turns a hang at exit into a failure instead of a test that never ends.
void exitWithTasksPending() {
  alarm(20);
  auto forever = std::make_shared<std::promise<void>>();
  std::shared_future<void> never = forever->get_future().share();
  std::promise<void> globalStarted;
  std::promise<void> mainStarted;
  dispatch_async(dispatch_get_global_queue(0, 0), [&globalStarted, never] {
    globalStarted.set_value();
    never.wait();
  });
  dispatch_async(dispatch_get_main_queue(), [&mainStarted, never] {
    mainStarted.set_value();
    never.wait();
  });
  globalStarted.get_future().wait();
  mainStarted.get_future().wait();
  for (int i = 0; i < 10; ++i) {
    dispatch_async(dispatch_get_main_queue(), [] {});
  }
  std::exit(0);
}

TEST(DispatchDeathTest, ProcessExitsWhileTasksBlockAndOthersWait) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exitWithTasksPending(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
