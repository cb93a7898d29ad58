// Starting the queue and following its running state to the sentence's one end. A start refused
// for an interruption holds the producer until it ends; a stop of the queue ends the sentence (one
// reported while paused after the resume, one whose running state cannot be read too), and with
// session management keeps the session for a while (still held when the finished notification
// arrives, released later); a queue left playing out by an ended sentence ends no other one. The
// fixture's player is not subscribed to the session: the end of an interruption is handed to it
// directly.
#include <future>

#include "Audio/Platform/Dispatch.h"
#include "Audio/Platform/NotificationCenter.h"
#include "unit/PlayerTestFixture.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr size_t kBuffer = AudioBufPlayer::kBufferByteSize;
constexpr uint16_t kPlaying = AudioBufPlayer::PS_ACTIVE | AudioBufPlayer::PS_QUEUE_STARTED;

TEST_F(PlayerTest, StartRefusedForAnInterruptionHoldsTheProducerUntilItEnds) {
  ASSERT_TRUE(fake::beginInterruption());
  CapturedLog log;
  auto producer = std::async(std::launch::async, [&] { return play(testBytes(2 * kBuffer), kPCM16K); });
  const StopOnExit stopOnFailure(*player);
  ASSERT_TRUE(delegate->waitFor("PlayerWasPaused"));
  constexpr uint16_t kHeld = AudioBufPlayer::PS_QUEUE_PAUSED | AudioBufPlayer::PS_INTERRUPTED;
  EXPECT_EQ(peer().status(), AudioBufPlayer::PS_ACTIVE | kHeld);
  EXPECT_EQ(fake::countCalls("AudioQueueEnqueueBuffer"), 1u);
  EXPECT_EQ(producer.wait_for(0s), std::future_status::timeout);

  ASSERT_TRUE(fake::endInterruption());
  player->audioSessionInterrupted(Notification{
      AVAudioSessionInterruptionNotification, std::map<std::string, int64_t>{{AVAudioSessionInterruptionTypeKey, 0}}});
  ASSERT_EQ(producer.wait_for(fake::kWaitTimeout), std::future_status::ready);
  EXPECT_EQ(peer().status(), kPlaying);
  EXPECT_EQ(fake::calls("AudioQueueStart"),
            (Lines{"AudioQueueStart q=1 -> !int", "AudioQueueStart q=1", "AudioQueueStart q=1"}));
  EXPECT_EQ(fake::countCalls("AudioQueueEnqueueBuffer"), 2u);
  EXPECT_EQ(log.count("]Can't switch sentence while audio is in interrupt!\n"), 1u);
  const std::vector<DelegateEvent> events = deliveredEvents();
  const std::vector<DelegateEvent> paused = eventsNamed(events, "PlayerWasPaused");
  ASSERT_EQ(paused.size(), 1u);
  EXPECT_EQ(paused[0].source, AudioBufPlayerPauseSource_INTERRUPT);
  EXPECT_TRUE(eventsNamed(events, "PlayerError").empty());
}

TEST_F(PlayerTest, StoppedQueueEndsTheSentenceAndKeepsAManagedSessionUntilTheHoldIsReleased) {
  struct Case {
    const char* what;
    bool manage;
    std::function<void(AudioBufPlayer&)> beforeTheReport;
  };
  const Case cases[] = {
      {"managed", true, [](AudioBufPlayer&) {}},
      {"not managed", false, [](AudioBufPlayer&) {}},
      {"paused: handled after the resume", false, [](AudioBufPlayer& p) { p.pause(); }},
      {"paused: handled after a resume whose restart fails", false,
       [](AudioBufPlayer& p) { p.pause(); fake::failCall("AudioQueueStart", kAudioQueueErr_DeviceFailed); }},
      {"running state unreadable", false,
       [](AudioBufPlayer&) { fake::failCall("AudioQueueGetProperty", kAudioQueueErr_InvalidQueue); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    startOver();
    endSessionUsesLeftOpen();
    player = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, c.manage);
    player->start();
    ASSERT_EQ(play(testBytes(kBuffer), kPCM16K), AudioBufPlayerError_OK);
    c.beforeTheReport(*player);
    ASSERT_TRUE(fake::lastQueue().reportRunning(false));
    if (peer().status() & AudioBufPlayer::PS_USER_PAUSED) {
      EXPECT_FALSE(fake::lastQueue().state().disposed);
      player->resume();
    }
    ASSERT_TRUE(delegate->waitFor("PlaybackFinished"));

    EXPECT_EQ(peer().status(), 0);
    EXPECT_EQ(peer().audioQueue(), nullptr);
    EXPECT_EQ(fake::countCalls("AudioQueueDispose q=1 immediate=1"), 1u);
    EXPECT_EQ(player->audioSessionSetCount(), 0);
    if (c.manage) {
      EXPECT_EQ(AudioBufPlayerTestPeer::sessionUsageCount(), 1) << "no hold taken";
      EXPECT_EQ(fake::calls("setActive"), Lines{"setActive 1 options=1"});
      ASSERT_TRUE(fake::waitForCall("setActive 0 options=1"));
      EXPECT_EQ(AudioBufPlayerTestPeer::sessionUsageCount(), 0);
    } else {
      EXPECT_EQ(AudioBufPlayerTestPeer::sessionUsageCount(), 0) << "a hold was taken";
      EXPECT_EQ(fake::calls("setActive"), Lines{});
    }
  }
}

TEST_F(PlayerTest, QueueLeftPlayingOutByAnEndedSentenceEndsNoOtherSentence) {
  for (const bool nextSentence : {false, true}) {
    SCOPED_TRACE(nextSentence ? "next sentence under way" : "no next sentence");
    startOver();
    // The next sentence's first chunk holds no frame yet (a tag, say): it opens no queue of its own.
    firstChunkHoldsNoFrame();
    ASSERT_EQ(play(testBytes(16000), kPCM16K), AudioBufPlayerError_OK);  // 0.5 s in four buffers
    fake::Queue first = fake::queue(1);
    first.setSampleTime(6000);  // 0.375 s played: the queue is told to stop after what it holds
    ASSERT_TRUE(first.playBack());
    ASSERT_EQ(play({}, kPCM16K), AudioBufPlayerError_OK);  // the client ends the sentence
    if (nextSentence) {
      ASSERT_EQ(play(testBytes(100), kMP3), AudioBufPlayerError_OK);
    }
    while (first.playBack()) {
    }
    ASSERT_TRUE(first.reportRunning(false));
    ASSERT_TRUE(dispatch_wait_until_idle(fake::kWaitTimeout.count()));

    EXPECT_EQ(peer().status(), nextSentence ? AudioBufPlayer::PS_ACTIVE : 0);
    if (nextSentence) {
      EXPECT_EQ(append(testBytes(836), kMP3), AudioBufPlayerError_OK);
      EXPECT_EQ(fake::queue(2).state().enqueued.size(), 1u) << "the sentence goes on with its own parser";
    }
    const std::vector<DelegateEvent> events = deliveredEvents();
    EXPECT_EQ(eventsNamed(events, "playerWillStartPlayback").size(), nextSentence ? 2u : 1u);
    EXPECT_EQ(eventsNamed(events, "PlaybackFinished").size(), 1u);
  }
}

}  // namespace
