// The real audio session as a player and a host program use it.
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
  bool onCallersThread;
  bool operator==(const Received&) const = default;
};

// Observes both session notifications for as long as it lives, from the caller's thread; its
// handlers wait for `release`.
class SessionObserver {
 public:
  explicit SessionObserver(std::shared_future<void> release) : release_(std::move(release)) {
    for (const char* name : {AVAudioSessionInterruptionNotification, AVAudioSessionRouteChangeNotification}) {
      NotificationCenter::defaultCenter().addObserver(token_, [this](const Notification& n) { receive(n); }, name);
    }
  }
  ~SessionObserver() {
    for (const char* name : {AVAudioSessionInterruptionNotification, AVAudioSessionRouteChangeNotification}) {
      NotificationCenter::defaultCenter().removeObserver(token_.get(), name);
    }
  }

  std::vector<Received> waitFor(size_t count) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, kDeadline, [&] { return received_.size() >= count; }));
    return received_;
  }

 private:
  void receive(const Notification& notification) {
    release_.wait();
    std::optional<int64_t> type;
    if (notification.userInfo) type = notification.userInfo->at(AVAudioSessionInterruptionTypeKey);
    std::lock_guard lock(mutex_);
    received_.push_back({notification.name, type, std::this_thread::get_id() == caller_});
    changed_.notify_all();
  }

  const std::shared_ptr<int> token_ = std::make_shared<int>();
  const std::thread::id caller_ = std::this_thread::get_id();
  std::shared_future<void> release_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Received> received_;  // guarded by mutex_
};

// The interrupted state changes at the call while the first handler is still held: a caller never
// waits for a handler, which may need the caller's locks.
TEST(AudioSession, HostEventsReachObserversOffTheCallersThreadInCallOrder) {
  std::promise<void> release;
  SessionObserver observer(release.get_future().share());
  AudioSession& session = AudioSession::sharedInstance();
  session.beginInterruption();
  EXPECT_TRUE(session.isInterrupted());
  session.changeRoute();
  session.endInterruption();
  EXPECT_FALSE(session.isInterrupted());
  session.postInterruption(7);
  session.postInterruption(std::nullopt);
  release.set_value();

  const std::vector<Received> received = observer.waitFor(5);
  ASSERT_EQ(received.size(), 5u);
  const std::vector<Received> expected = {
      {AVAudioSessionInterruptionNotification, AVAudioSessionInterruptionTypeBegan, false},
      {AVAudioSessionRouteChangeNotification, std::nullopt, false},
      {AVAudioSessionInterruptionNotification, AVAudioSessionInterruptionTypeEnded, false},
      {AVAudioSessionInterruptionNotification, 7, false},
      {AVAudioSessionInterruptionNotification, std::nullopt, false}};
  EXPECT_EQ(received, expected);
}

}  // namespace
