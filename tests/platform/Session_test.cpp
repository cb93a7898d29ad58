// Plan: the real audio session and application object as a player and a host program use them.
// - An empty category is refused and changes nothing.
// - The host side: every notification reaches its observers off the caller's thread, in the order
//   of the calls, with the user info a player reads; the interrupted state changes at the call,
//   before delivery, so a caller never waits for a handler (a handler may need the caller's locks).
// Not tested here: NSLog's output, since the system log cannot be read back from a test.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/NotificationCenter.h"

namespace {

constexpr auto kDeadline = std::chrono::seconds(30);

struct Received {
  std::string name;
  std::optional<int64_t> type;  // absent when the notification had no user info
  std::thread::id thread;
};

// Observes both session notifications for as long as it lives. A handler may be made to wait.
class SessionObserver {
 public:
  explicit SessionObserver(std::shared_future<void> holdHandlers = {}) : holdHandlers_(std::move(holdHandlers)) {
    auto& center = NotificationCenter::defaultCenter();
    for (const char* name : {AVAudioSessionInterruptionNotification, AVAudioSessionRouteChangeNotification}) {
      center.addObserver(
          token_, [this](const Notification& notification) { receive(notification); }, name);
    }
  }
  ~SessionObserver() {
    NotificationCenter::defaultCenter().removeObserver(token_.get(), AVAudioSessionInterruptionNotification);
    NotificationCenter::defaultCenter().removeObserver(token_.get(), AVAudioSessionRouteChangeNotification);
  }

  // Any thread.
  std::vector<Received> waitFor(size_t count) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, kDeadline, [&] { return received_.size() >= count; }))
        << "only " << received_.size() << " of " << count << " notifications arrived";
    return received_;
  }

 private:
  // Runs on the thread that posts.
  void receive(const Notification& notification) {
    if (holdHandlers_.valid()) {
      EXPECT_EQ(holdHandlers_.wait_for(kDeadline), std::future_status::ready) << "the handler was never released";
    }
    Received received{notification.name, std::nullopt, std::this_thread::get_id()};
    if (notification.userInfo) received.type = notification.userInfo->at(AVAudioSessionInterruptionTypeKey);
    std::lock_guard lock(mutex_);
    received_.push_back(received);
    changed_.notify_all();
  }

  const std::shared_ptr<int> token_ = std::make_shared<int>();
  std::shared_future<void> holdHandlers_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Received> received_;  // guarded by mutex_
};

TEST(AudioSession, EmptyCategoryIsRefusedAndChangesNothing) {
  AudioSession& session = AudioSession::sharedInstance();
  EXPECT_TRUE(session.setCategory("AVAudioSessionCategoryPlayback", 0x2));
  EXPECT_FALSE(session.setCategory("", 0x8));
  EXPECT_EQ(session.category(), "AVAudioSessionCategoryPlayback");
  EXPECT_EQ(session.categoryOptions(), 0x2u);
}

TEST(AudioSession, HostEventsReachObserversOffTheCallersThreadInCallOrder) {
  SessionObserver observer;
  AudioSession& session = AudioSession::sharedInstance();
  session.beginInterruption();
  session.changeRoute();
  session.endInterruption();
  session.postInterruption(7);
  session.postInterruption(std::nullopt);

  const std::vector<Received> received = observer.waitFor(5);
  ASSERT_EQ(received.size(), 5u);
  const std::vector<std::pair<std::string, std::optional<int64_t>>> expected = {
      {AVAudioSessionInterruptionNotification, AVAudioSessionInterruptionTypeBegan},
      {AVAudioSessionRouteChangeNotification, std::nullopt},
      {AVAudioSessionInterruptionNotification, AVAudioSessionInterruptionTypeEnded},
      {AVAudioSessionInterruptionNotification, 7},
      {AVAudioSessionInterruptionNotification, std::nullopt}};
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(received[i].name, expected[i].first) << "notification " << i;
    EXPECT_EQ(received[i].type, expected[i].second) << "notification " << i;
    EXPECT_NE(received[i].thread, std::this_thread::get_id()) << "notification " << i;
  }
}

TEST(AudioSession, InterruptedStateChangesAtTheCallWhileHandlersAreStillBusy) {
  std::promise<void> releaseHandlers;
  SessionObserver observer(releaseHandlers.get_future().share());
  AudioSession& session = AudioSession::sharedInstance();

  // The first handler is held, so neither notification has been handled when the state is read:
  // the calls themselves never wait for a handler.
  session.beginInterruption();
  EXPECT_TRUE(session.isInterrupted());
  session.endInterruption();
  EXPECT_FALSE(session.isInterrupted());
  releaseHandlers.set_value();

  const std::vector<Received> received = observer.waitFor(2);
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[0].type, AVAudioSessionInterruptionTypeBegan);
  EXPECT_EQ(received[1].type, AVAudioSessionInterruptionTypeEnded);
}

}  // namespace
