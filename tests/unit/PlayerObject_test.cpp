// The player object and its posted notifications: a new player's settings; the notifications reach
// the delegate set when they were posted, keep it and the player alive until delivered, and are
// lost without a delegate. That the delegate is held weakly shows in every test: the fixture waits
// for its last reference to go.
#include <algorithm>
#include <future>

#include "unit/PlayerTestFixture.h"

namespace {

using Peer = AudioBufPlayerTestPeer;

TEST_F(PlayerTest, NewPlayerIsStoppedAtHalfVolumeAndTouchesNoPlatformService) {
  const auto fresh = AudioBufPlayer::initWithAudioSessionCategory("AVAudioSessionCategoryPlayback", 7, true);
  EXPECT_EQ(Peer(fresh).status(), AudioBufPlayer::PS_STOPPED);
  EXPECT_EQ(fresh->volume(), 0.5f);
  EXPECT_EQ(fresh->audioSessionSetCount(), 0);
  EXPECT_FALSE(Peer(fresh).isListeningInterruptions());
  EXPECT_TRUE(fake::calls().empty());
}

TEST_F(PlayerTest, NotificationsReachTheDelegateSetWhenPostedAndAreLostWithoutOne) {
  const auto postAllFour = [this] {
    peer().notifyDelegateOfError(AudioBufPlayerError_QUEUE_FAIL, "what failed");
    peer().notifyPaused(AudioBufPlayerPauseSource_BACKGROUND);
    peer().notifyResumed();
    peer().notifyFinished();
  };
  postAllFour();  // no delegate yet: lost
  player->setDelegate(delegate);
  postAllFour();
  const auto successor = std::make_shared<RecordingDelegate>();
  player->setDelegate(successor);

  // Our last reference goes here: only the posted tasks keep the first delegate alive.
  std::vector<DelegateEvent> events = deliveredEvents();
  std::sort(events.begin(), events.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[0].name, "PlaybackFinished");
  EXPECT_EQ(events[1].error, AudioBufPlayerError_QUEUE_FAIL);
  EXPECT_EQ(events[1].description, "what failed");
  EXPECT_EQ(events[2].source, AudioBufPlayerPauseSource_BACKGROUND);
  EXPECT_EQ(events[3].name, "PlayerWasResumed");
  for (const DelegateEvent& event : events) {
    EXPECT_EQ(event.player, player.get()) << event.name;
    EXPECT_NE(event.thread, std::this_thread::get_id()) << event.name << " was not posted";
  }
  EXPECT_TRUE(successor->events().empty());
}

// Holds every paused notification until the test lets go, then reads the player it was sent by.
class ReadingDelegate : public RecordingDelegate {
 public:
  std::promise<void> entered;
  std::shared_future<void> release;

  void PlayerWasPaused(AudioBufPlayerPauseSource source, AudioBufPlayer* player) override {
    if (!enteredOnce_.exchange(true)) entered.set_value();
    (void)release.wait_for(kWaitTimeout);
    (void)player->volume();
    RecordingDelegate::PlayerWasPaused(source, player);
  }

 private:
  std::atomic<bool> enteredOnce_{false};
};

TEST_F(PlayerTest, PendingNotificationsKeepThePlayerAliveAfterItsClientLetsGo) {
  constexpr size_t kPosted = 8;
  const auto reading = std::make_shared<ReadingDelegate>();
  std::promise<void> release;
  reading->release = release.get_future().share();
  player->setDelegate(reading);
  for (size_t i = 0; i < kPosted; ++i) peer().notifyPaused(AudioBufPlayerPauseSource_USER);
  ASSERT_EQ(reading->entered.get_future().wait_for(fake::kWaitTimeout), std::future_status::ready);

  const std::weak_ptr<AudioBufPlayer> kept = player->weak_from_this();
  player.reset();
  EXPECT_FALSE(kept.expired());
  release.set_value();
  ASSERT_TRUE(reading->waitFor("PlayerWasPaused", kPosted));
}

}  // namespace
