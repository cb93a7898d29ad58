// Plan: the notification centre's promises to a player that subscribes to session notifications.
// - A post calls every live observer of its name, on the posting thread, in subscription order,
//   with the user info; a second subscription of an observer to a name replaces the first.
// - An observer removed or destroyed while a post is under way on another thread (held inside an
//   earlier observer's handler) is not called by that post.
// - An observer may remove itself from inside its handler.
// - Posting, subscribing, removing and destroying observers on many threads at once (for TSan).
// Names are unique per test, so observers of other tests never interfere.
#include "Audio/Platform/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr auto kDeadline = std::chrono::seconds(30);

NotificationCenter& center() { return NotificationCenter::defaultCenter(); }

std::string uniqueName() {
  static std::atomic<int> next{0};
  return "test.notification." + std::to_string(next++);
}

TEST(NotificationCenter, PostCallsLiveObserversOfItsNameOnThePostingThreadInOrder) {
  const std::string name = uniqueName();
  const auto first = std::make_shared<int>();
  const auto second = std::make_shared<int>();
  const auto otherName = std::make_shared<int>();
  std::vector<std::string> calls;  // only ever touched on this thread, which posts
  center().addObserver(
      first, [&](const Notification&) { calls.push_back("replaced"); }, name);
  center().addObserver(
      second, [&](const Notification& n) { calls.push_back("second " + std::to_string(n.userInfo->at("k"))); }, name);
  center().addObserver(
      first, [&](const Notification& n) { calls.push_back("first " + std::to_string(n.userInfo->at("k"))); }, name);
  center().addObserver(
      otherName, [&](const Notification&) { calls.push_back("other"); }, uniqueName());

  center().postNotification(Notification{name, std::map<std::string, int64_t>{{"k", 4}}});

  EXPECT_EQ(calls, (std::vector<std::string>{"second 4", "first 4"}));
  center().removeObserver(first.get(), name);
  center().removeObserver(second.get(), name);
}

// The post runs on its own thread and is held inside the first observer's handler while the test
// removes or destroys the second observer.
TEST(NotificationCenter, ObserverRemovedOrDestroyedDuringAPostIsNotCalledByIt) {
  for (const bool destroy : {false, true}) {
    SCOPED_TRACE(destroy ? "destroyed" : "removed");
    const std::string name = uniqueName();
    const auto holder = std::make_shared<int>();
    auto late = std::make_shared<int>();
    std::promise<void> postInsideHolder;
    std::promise<void> releaseHolder;
    std::atomic<bool> lateCalled{false};
    center().addObserver(
        holder,
        [&](const Notification&) {
          postInsideHolder.set_value();
          EXPECT_EQ(releaseHolder.get_future().wait_for(kDeadline), std::future_status::ready);
        },
        name);
    center().addObserver(
        late, [&](const Notification&) { lateCalled = true; }, name);

    std::thread poster([&] { center().postNotification(Notification{name, std::nullopt}); });
    ASSERT_EQ(postInsideHolder.get_future().wait_for(kDeadline), std::future_status::ready);
    if (destroy) {
      late.reset();
    } else {
      center().removeObserver(late.get(), name);
    }
    releaseHolder.set_value();
    poster.join();

    EXPECT_FALSE(lateCalled);
    center().removeObserver(holder.get(), name);
  }
}

TEST(NotificationCenter, ObserverMayRemoveItselfFromItsHandler) {
  const std::string name = uniqueName();
  const auto observer = std::make_shared<int>();
  int calls = 0;
  center().addObserver(
      observer,
      [&](const Notification&) {
        ++calls;
        center().removeObserver(observer.get(), name);
      },
      name);
  center().postNotification(Notification{name, std::nullopt});
  center().postNotification(Notification{name, std::nullopt});
  EXPECT_EQ(calls, 1);
}

// Each handler touches its observer through a plain pointer, so ASan catches a call made after the
// observer died; TSan watches the centre's own bookkeeping.
TEST(NotificationCenter, ConcurrentPostsSubscriptionsRemovalsAndDestructionsAreSafe) {
  const std::string name = uniqueName();
  std::atomic<bool> stop{false};
  std::vector<std::thread> posters;
  for (int i = 0; i < 3; ++i) {
    posters.emplace_back([&] {
      while (!stop) center().postNotification(Notification{name, std::nullopt});
    });
  }
  std::vector<std::thread> subscribers;
  for (int i = 0; i < 3; ++i) {
    subscribers.emplace_back([&, i] {
      for (int round = 0; round < 300; ++round) {
        auto observer = std::make_shared<std::atomic<int>>(0);
        center().addObserver(
            observer, [calls = observer.get()](const Notification&) { ++*calls; }, name);
        if ((round + i) % 2 == 0) center().removeObserver(observer.get(), name);
      }
    });
  }
  for (std::thread& subscriber : subscribers) subscriber.join();
  stop = true;
  for (std::thread& poster : posters) poster.join();
}

}  // namespace
