// Posted notifications reach the delegate set when they were posted, keep it alive until delivered,
// and are lost without a delegate. That the delegate is held weakly shows in every test: the
// fixture waits for its last reference to go.
#include <algorithm>

#include "unit/PlayerTestFixture.h"

namespace {

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

}  // namespace
