// Plan: starting the queue and following its running state. A start refused for an interruption
// or the background holds the producer, says why and pauses until the hold ends; any other start
// failure is reported and retried by the next enqueue; a stop of the queue ends the sentence, and
// with session management keeps the session for a while; a stop reported while paused waits for
// the resume (a stop of a queue that is no longer its sentence's: sentence end tests).
// Not here: what a pause or resume does to the queue (pause and resume tests). The 0.8 s of the
// hold are not measured, only that the session is still held when the finished notification
// arrives and released later. A change to "running" only writes a DEBUG line, after which no event
// comes that a test could wait for, so it goes untested. The fixture's player does not manage the
// session, so it is never subscribed: the end of the interruption is handed to it directly here
// (ManagingPlayerHeldByARefusedStartHearsTheInterruptionEnd covers the notification path).
#include <future>

#include "Audio/Platform/Application.h"
#include "unit/PlayerTestFixture.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr size_t kBuffer = AudioBufPlayer::kBufferByteSize;
constexpr uint16_t kPlaying = AudioBufPlayer::PS_ACTIVE | AudioBufPlayer::PS_QUEUE_STARTED;
constexpr uint16_t kHeld = AudioBufPlayer::PS_QUEUE_PAUSED | AudioBufPlayer::PS_INTERRUPTED;

TEST_F(PlayerTest, StartRefusedForInterruptionOrBackgroundHoldsTheProducerUntilTheHoldEnds) {
  struct Case {
    const char* refusal;
    OSStatus status;
    std::function<void(bool)> hold;
    const char* why;
    AudioBufPlayerPauseSource source;
    std::function<void(AudioBufPlayer&)> endHold;
  };
  const Case cases[] = {
      {"!int", kAudioSessionErr_Interrupted,
       [](bool held) { ASSERT_TRUE(held ? fake::beginInterruption() : fake::endInterruption()); },
       "Can't switch sentence while audio is in interrupt!", AudioBufPlayerPauseSource_INTERRUPT,
       [](AudioBufPlayer& p) { p.audioSessionInterrupted(interruptionNotification(0)); }},
      {"!pla", kAudioSessionErr_InBackground, [](bool held) { Application::sharedApplication().setInBackground(held); },
       "Can't begin playback while in background!", AudioBufPlayerPauseSource_BACKGROUND,
       [](AudioBufPlayer& p) { p.resume(); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.refusal);
    startOver();
    c.hold(true);
    CapturedLog log;
    auto producer = std::async(std::launch::async, [&] { return play(testBytes(2 * kBuffer), kPCM16K); });
    const StopOnExit stopOnFailure(*player);
    ASSERT_TRUE(delegate->waitFor("PlayerWasPaused"));
    EXPECT_EQ(peer().status(), AudioBufPlayer::PS_ACTIVE | kHeld);
    EXPECT_EQ(fake::countCalls("AudioQueueEnqueueBuffer"), 1u);
    EXPECT_EQ(producer.wait_for(0s), std::future_status::timeout);

    c.hold(false);
    c.endHold(*player);
    ASSERT_EQ(producer.wait_for(fake::kWaitTimeout), std::future_status::ready);
    EXPECT_EQ(peer().status(), kPlaying);
    EXPECT_EQ(fake::calls("AudioQueueStart"), (Lines{"AudioQueueStart q=1 -> " + std::string(c.refusal),
                                                     "AudioQueueStart q=1", "AudioQueueStart q=1"}));
    EXPECT_EQ(fake::countCalls("AudioQueueEnqueueBuffer"), 2u);
    const std::string status = std::to_string(c.status);
    EXPECT_EQ(log.countLines("ERROR", "AudioQueue start errored error: " + status + " (" + c.refusal + ")"), 1u);
    EXPECT_EQ(log.countLines("ERROR", c.why), 1u);
    const std::vector<DelegateEvent> events = deliveredEvents();
    const std::vector<DelegateEvent> paused = eventsNamed(events, "PlayerWasPaused");
    ASSERT_EQ(paused.size(), 1u);
    EXPECT_EQ(paused[0].source, c.source);
    EXPECT_EQ(eventsNamed(events, "PlayerError").size(), 0u);
  }
}

TEST_F(PlayerTest, ManagingPlayerHeldByARefusedStartHearsTheInterruptionEnd) {
  player = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, true);
  player->start();
  ASSERT_TRUE(fake::beginInterruption());
  auto producer = std::async(std::launch::async, [&] { return play(testBytes(2 * kBuffer), kPCM16K); });
  const StopOnExit stopOnFailure(*player);
  ASSERT_TRUE(delegate->waitFor("PlayerWasPaused"));
  EXPECT_TRUE(peer().isListeningInterruptions());

  ASSERT_TRUE(fake::endInterruption());
  ASSERT_EQ(producer.wait_for(fake::kWaitTimeout), std::future_status::ready);
  EXPECT_EQ(peer().status(), kPlaying);
  ASSERT_TRUE(delegate->waitFor("PlayerWasResumed"));
}

TEST_F(PlayerTest, OtherStartFailureIsReportedAndTheNextEnqueueStartsAgain) {
  fake::failCall("AudioQueueStart", kAudioQueueErr_DeviceFailed);
  ASSERT_EQ(play(testBytes(2 * kBuffer), kPCM16K), AudioBufPlayerError_OK);
  EXPECT_EQ(callsWith({"AudioQueueEnqueueBuffer", "AudioQueueStart"}),
            (Lines{"AudioQueueEnqueueBuffer q=1 buf=1 bytes=5120 packets=0", "AudioQueueStart q=1 -> qdev",
                   "AudioQueueEnqueueBuffer q=1 buf=2 bytes=5120 packets=0", "AudioQueueStart q=1"}));
  EXPECT_EQ(peer().status(), kPlaying);
  EXPECT_EQ(player->audioSessionSetCount(), 1) << "the failed start's session use was not closed";
  const std::vector<DelegateEvent> errors = eventsNamed(deliveredEvents(), "PlayerError");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].error, AudioBufPlayerError_START_PLAYBACK_FAILED);
  EXPECT_EQ(errors[0].description,
            "AudioQueueStart returned error " + std::to_string(kAudioQueueErr_DeviceFailed) + " (qdev)");
}

TEST_F(PlayerTest, StoppedQueueEndsTheSentenceAndKeepsAManagedSessionUntilTheHoldIsReleased) {
  for (const bool manage : {true, false}) {
    SCOPED_TRACE(manage ? "managed" : "not managed");
    startOver();
    endSessionUsesLeftOpen();
    player = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, manage);
    player->start();
    CapturedLog log;
    ASSERT_EQ(play(testBytes(kBuffer), kPCM16K), AudioBufPlayerError_OK);
    ASSERT_TRUE(fake::lastQueue().reportRunning(false));
    ASSERT_TRUE(delegate->waitFor("PlaybackFinished"));

    EXPECT_EQ(peer().status(), 0);
    EXPECT_EQ(peer().audioQueue(), nullptr);
    EXPECT_EQ(fake::countCalls("AudioQueueDispose q=1 immediate=1"), 1u);
    EXPECT_EQ(log.countLines("DEBUG", "Audio queue stopped"), 1u);
    EXPECT_EQ(player->audioSessionSetCount(), 0);
    if (manage) {
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

TEST_F(PlayerTest, QueueStopReportedWhilePausedIsHandledOnlyAfterTheResume) {
  ASSERT_EQ(play(testBytes(kBuffer), kPCM16K), AudioBufPlayerError_OK);
  player->pause();
  auto queue = fake::lastQueue();
  ASSERT_TRUE(queue.reportRunning(false));
  EXPECT_FALSE(queue.state().disposed);
  player->resume();
  ASSERT_TRUE(delegate->waitFor("PlaybackFinished"));
  EXPECT_EQ(callsWith({"AudioQueueStart", "AudioQueuePause", "AudioQueueDispose"}),
            (Lines{"AudioQueueStart q=1", "AudioQueuePause q=1", "AudioQueueStart q=1",
                   "AudioQueueDispose q=1 immediate=1"}));
}

}  // namespace
