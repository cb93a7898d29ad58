// The work queues' promises. Not tested: the retirement of idle threads, which only shows as time
// passes.
#include "Audio/Platform/Dispatch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <latch>
#include <mutex>
#include <thread>
#include <vector>

namespace {

constexpr auto kDeadline = std::chrono::seconds(30);

// Each task blocks until all of them run: a pool that made tasks wait for a busy thread never
// gets there.
TEST(Dispatch, GlobalQueueRunsManyBlockingTasksAtOnce) {
  constexpr int kTasks = 64;
  struct Rendezvous {
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0;
    int finished = 0;
  };
  auto rendezvous = std::make_shared<Rendezvous>();
  for (int i = 0; i < kTasks; ++i) {
    dispatch_async(dispatch_get_global_queue(0, 0), [rendezvous] {
      std::unique_lock lock(rendezvous->mutex);
      ++rendezvous->running;
      rendezvous->changed.notify_all();
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
  using Run = std::pair<int, std::thread::id>;
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
  for (int i = 0; i < kTasks; ++i) EXPECT_EQ(order[i], Run(i, order[0].second));
  EXPECT_NE(order[0].second, std::this_thread::get_id());
}

// Tasks that never end on both queues, more waiting behind them, and exit. The alarm turns a hang
// at exit into a failure.
void ExitWithTasksPending() {
  alarm(20);
  // Locals: exit destroys no object of this frame while the tasks still use them.
  std::promise<void> forever;
  const std::shared_future<void> never = forever.get_future().share();
  std::latch started(2);
  for (dispatch_queue_t queue : {dispatch_get_global_queue(0, 0), dispatch_get_main_queue()}) {
    dispatch_async(queue, [&started, never] {
      started.count_down();
      never.wait();
    });
  }
  started.wait();
  for (int i = 0; i < 10; ++i) dispatch_async(dispatch_get_main_queue(), [] {});
  std::exit(0);
}

TEST(DispatchDeathTest, ProcessExitsWhileTasksBlockAndOthersWait) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ExitWithTasksPending(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
