// Plan: the player object and its posted notifications. A new player's settings and status word;
// the four posted notifications reach the delegate that was set when they were posted, keep it
// alive until delivered, and are lost without a delegate; posted tasks keep the player alive after
// its client lets go; the status rewrites of stop/start and setPlayerStopped. That the delegate is
// held weakly shows in every test: the fixture waits for its last reference to go.
// Not here: when each notification is sent (the tests of the code that sends it), and the order of
// posted notifications, which the concurrent work queue leaves open.
#include <algorithm>
#include <future>

#include "unit/PlayerTestFixture.h"

namespace {

using Peer = AudioBufPlayerTestPeer;

TEST_F(PlayerTest, NewPlayerIsStoppedAtHalfVolumeAndTouchesNoPlatformService) {
  const auto fresh = AudioBufPlayer::initWithAudioSessionCategory("AVAudioSessionCategoryPlayback", 7, true);
  ASSERT_TRUE(fresh);
  Peer peer(fresh);
  EXPECT_EQ(peer.status(), AudioBufPlayer::PS_STOPPED);
  EXPECT_EQ(fresh->volume(), 0.5f);
  EXPECT_EQ(fresh->reportAudioLenOffset(), 0.0);
  EXPECT_EQ(fresh->audioSessionSetCount(), 0);
  EXPECT_FALSE(peer.isListeningInterruptions());
  EXPECT_TRUE(fake::calls().empty());
}

void postAllFour(Peer peer) {
  peer.notifyDelegateOfError(AudioBufPlayerError_QUEUE_FAIL, "what failed");
  peer.notifyPaused(AudioBufPlayerPauseSource_BACKGROUND);
  peer.notifyResumed();
  peer.notifyFinished();
}

TEST_F(PlayerTest, NotificationsReachTheDelegateSetWhenPostedEvenAfterItIsReplacedAndReleased) {
  player->setDelegate(delegate);
  postAllFour(peer());
  const auto successor = std::make_shared<RecordingDelegate>();
  player->setDelegate(successor);

  // Our last reference goes here: only the posted tasks keep the first delegate alive.
  std::vector<DelegateEvent> events = deliveredEvents();
  std::sort(events.begin(), events.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[0].name, "PlaybackFinished");
  EXPECT_EQ(events[1].name, "PlayerError");
  EXPECT_EQ(events[1].error, AudioBufPlayerError_QUEUE_FAIL);
  EXPECT_EQ(events[1].description, "what failed");
  EXPECT_EQ(events[2].name, "PlayerWasPaused");
  EXPECT_EQ(events[2].source, AudioBufPlayerPauseSource_BACKGROUND);
  EXPECT_EQ(events[3].name, "PlayerWasResumed");
  for (const DelegateEvent& event : events) {
    EXPECT_EQ(event.player, player.get()) << event.name;
    EXPECT_NE(event.thread, std::this_thread::get_id()) << event.name << " was not posted";
  }
  EXPECT_TRUE(successor->events().empty());
}

TEST_F(PlayerTest, NotificationsPostedWithoutDelegateAreLostEvenForOneSetLater) {
  postAllFour(peer());
  player->setDelegate(delegate);
  peer().notifyResumed();
  const std::vector<DelegateEvent> events = deliveredEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].name, "PlayerWasResumed");
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
    (void)player->audioCategory();
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

  AudioBufPlayer* const sender = player.get();
  const std::weak_ptr<AudioBufPlayer> kept = player->weak_from_this();
  player.reset();
  EXPECT_FALSE(kept.expired());
  release.set_value();

  ASSERT_TRUE(reading->waitFor("PlayerWasPaused", kPosted));
  for (const DelegateEvent& event : reading->events()) EXPECT_EQ(event.player, sender);
}

TEST_F(PlayerTest, StopThenStartLeavesNoFlagInTheWord) {
  ASSERT_EQ(play(testBytes(5120), kPCM16K), AudioBufPlayerError_OK);
  player->pause();
  ASSERT_EQ(peer().status(), AudioBufPlayer::PS_ACTIVE | AudioBufPlayer::PS_QUEUE_STARTED |
                                 AudioBufPlayer::PS_USER_PAUSED | AudioBufPlayer::PS_QUEUE_PAUSED);
  player->stop();
  EXPECT_EQ(peer().status(), AudioBufPlayer::PS_STOPPED);
  player->start();
  EXPECT_EQ(peer().status(), 0);
}

TEST_F(PlayerTest, SetPlayerStoppedKeepsOnlyTheStoppedFlagAndSaysSo) {
  using Words = std::pair<uint16_t, uint16_t>;
  for (const auto& [before, after] : {Words{0x0015, 0x0000}, Words{0x0801, 0x0800}, Words{0x0D3D, 0x0800}}) {
    SCOPED_TRACE(testing::Message() << "word 0x" << std::hex << before);
    CapturedLog log;
    peer().setStatus(before);
    peer().setPlayerStopped();
    EXPECT_EQ(peer().status(), after);
    EXPECT_EQ(log.countLines("ERROR", "Player status = 0 from AudioPropertyFoundForStream"), 1u);
  }
}

}  // namespace
