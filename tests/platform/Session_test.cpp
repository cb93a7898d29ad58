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

struct Received {
  std::string name;
  std::optional<int64_t> type;  // absent when the notification had no user info
  bool onCallersThread;
  bool operator==(const Received&) const = default;
};

// The handlers are held until every call has returned, and the interrupted state has already
// changed at each call: a caller never waits for a handler, which may need the caller's locks.
TEST(AudioSession, HostEventsReachObserversOffTheCallersThreadInCallOrder) {
  std::promise<void> release;
  const std::shared_future<void> released = release.get_future().share();
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Received> received;  // guarded by mutex
  const std::thread::id caller = std::this_thread::get_id();
  const auto observer = std::make_shared<int>();  // unsubscribes when it dies
  for (const char* name : {AVAudioSessionInterruptionNotification, AVAudioSessionRouteChangeNotification}) {
    NotificationCenter::defaultCenter().addObserver(
        observer,
        [&](const Notification& notification) {
          released.wait();
          std::optional<int64_t> type;
          if (notification.userInfo) type = notification.userInfo->at(AVAudioSessionInterruptionTypeKey);
          std::lock_guard lock(mutex);
          received.push_back({notification.name, type, std::this_thread::get_id() == caller});
          changed.notify_all();
        },
        name);
  }
  AudioSession& session = AudioSession::sharedInstance();
  session.beginInterruption();
  EXPECT_TRUE(session.isInterrupted());
  session.changeRoute();
  session.endInterruption();
  EXPECT_FALSE(session.isInterrupted());
  session.postInterruption(std::nullopt);
  release.set_value();

  std::unique_lock lock(mutex);
  changed.wait_for(lock, std::chrono::seconds(30), [&] { return received.size() >= 4; });
  const std::vector<Received> expected = {
      {AVAudioSessionInterruptionNotification, AVAudioSessionInterruptionTypeBegan, false},
      {AVAudioSessionRouteChangeNotification, std::nullopt, false},
      {AVAudioSessionInterruptionNotification, AVAudioSessionInterruptionTypeEnded, false},
      {AVAudioSessionInterruptionNotification, std::nullopt, false}};
  EXPECT_EQ(received, expected);
}

}  // namespace
