// The notification centre as a player uses it. Names are unique per test, so observers of other
// tests never interfere.
#include "Audio/Platform/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

NotificationCenter& center() { return NotificationCenter::defaultCenter(); }

std::string UniqueName() {
  static std::atomic<int> next{0};
  return "test.notification." + std::to_string(next++);
}

// A second subscription of an observer to a name replaces the first; an observer may remove itself
// from its handler.
TEST(NotificationCenter, PostCallsLiveObserversOfItsNameOnThePostingThreadInOrder) {
  const std::string name = UniqueName();
  const auto first = std::make_shared<int>();
  const auto second = std::make_shared<int>();
  std::vector<std::string> calls;  // touched only on this thread, which posts
  const auto record = [&](const char* who) {
    return [&calls, who](const Notification& n) { calls.push_back(who + std::to_string(n.userInfo->at("k"))); };
  };
  center().addObserver(first, record("replaced "), name);
  center().addObserver(
      second,
      [&](const Notification& n) {
        record("second ")(n);
        center().removeObserver(second.get(), name);
      },
      name);
  center().addObserver(first, record("first "), name);
  center().addObserver(first, record("other name "), UniqueName());

  center().postNotification(Notification{name, std::map<std::string, int64_t>{{"k", 4}}});
  center().postNotification(Notification{name, std::map<std::string, int64_t>{{"k", 5}}});

  EXPECT_EQ(calls, (std::vector<std::string>{"second 4", "first 4", "first 5"}));
  center().removeObserver(first.get(), name);
}

// The post runs on a thread of its own, held inside the first observer's handler while the test
// removes the second observer. A destroyed observer needs no such test: the player's handlers hold
// it only weakly and check it themselves.
TEST(NotificationCenter, ObserverRemovedDuringAPostIsNotCalledByIt) {
  const std::string name = UniqueName();
  const auto holder = std::make_shared<int>();
  const auto late = std::make_shared<int>();
  std::promise<void> postInsideHolder;
  std::promise<void> releaseHolder;
  std::atomic<bool> lateCalled{false};
  center().addObserver(
      holder,
      [&](const Notification&) {
        postInsideHolder.set_value();
        releaseHolder.get_future().wait();
      },
      name);
  center().addObserver(late, [&](const Notification&) { lateCalled = true; }, name);

  std::thread poster([&] { center().postNotification(Notification{name, std::nullopt}); });
  postInsideHolder.get_future().wait();
  center().removeObserver(late.get(), name);
  releaseHolder.set_value();
  poster.join();
  EXPECT_FALSE(lateCalled);
  center().removeObserver(holder.get(), name);
}

}  // namespace
