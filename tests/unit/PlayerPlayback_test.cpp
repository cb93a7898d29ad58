// Starting the queue and following its running state to the sentence's one end. A start refused
// for an interruption or the background holds the producer, says why and pauses until the hold
// ends; any other start failure is reported and retried by the next enqueue; a stop of the queue
// ends the sentence, and with session management keeps the session for a while (not measured:
// still held when the finished notification arrives, released later); a stop reported while
// paused waits for the resume; a queue left playing out by an ended sentence ends no other one.
// The fixture's player is not subscribed to the session: the end of an interruption is handed to
// it directly.
#include <future>

#include "Audio/Platform/Application.h"
#include "Audio/Platform/Dispatch.h"
#include "Audio/Platform/NotificationCenter.h"
#include "unit/PlayerTestFixture.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr size_t kBuffer = AudioBufPlayer::kBufferByteSize;
constexpr uint16_t kPlaying = AudioBufPlayer::PS_ACTIVE | AudioBufPlayer::PS_QUEUE_STARTED;
[[nodiscard]] bool postedWorkDone() { return dispatch_wait_until_idle(fake::kWaitTimeout.count()); }

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
       [](AudioBufPlayer& p) {
         p.audioSessionInterrupted(
             Notification{AVAudioSessionInterruptionNotification,
                          std::map<std::string, int64_t>{{AVAudioSessionInterruptionTypeKey, 0}}});
       }},
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
    EXPECT_EQ(log.countLines("AudioQueue start errored error: " + status + " (" + c.refusal + ")"), 1u);
    EXPECT_EQ(log.countLines(c.why), 1u);
    const std::vector<DelegateEvent> events = deliveredEvents();
    const std::vector<DelegateEvent> paused = eventsNamed(events, "PlayerWasPaused");
    ASSERT_EQ(paused.size(), 1u);
    EXPECT_EQ(paused[0].source, c.source);
    EXPECT_EQ(eventsNamed(events, "PlayerError").size(), 0u);
  }
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
    ASSERT_EQ(play(testBytes(kBuffer), kPCM16K), AudioBufPlayerError_OK);
    ASSERT_TRUE(fake::lastQueue().reportRunning(false));
    ASSERT_TRUE(delegate->waitFor("PlaybackFinished"));

    EXPECT_EQ(peer().status(), 0);
    EXPECT_EQ(peer().audioQueue(), nullptr);
    EXPECT_EQ(fake::countCalls("AudioQueueDispose q=1 immediate=1"), 1u);
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

TEST_F(PlayerTest, QueueLeftPlayingOutByAnEndedSentenceEndsNoOtherSentence) {
  for (const bool nextSentence : {false, true}) {
    SCOPED_TRACE(nextSentence ? "next sentence under way" : "no next sentence");
    startOver();
    // The next sentence's first chunk holds no frame yet (a tag, say): it opens no queue of its own.
    fake::setParserBehaviour(
        [](fake::ParseContext& parse) { return parse.call() == 1 ? noErr : parse.parseByDefault(); });
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
    ASSERT_TRUE(postedWorkDone());

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

TEST_F(PlayerTest, StopWhoseRunningStateCannotBeReadStillEndsTheSentence) {
  ASSERT_EQ(play(testBytes(kBuffer), kPCM16K), AudioBufPlayerError_OK);
  fake::failCall("AudioQueueGetProperty", kAudioQueueErr_InvalidQueue);
  ASSERT_TRUE(fake::lastQueue().reportRunning(false));
  ASSERT_TRUE(postedWorkDone());
  EXPECT_EQ(peer().status(), 0);
  EXPECT_EQ(eventsNamed(deliveredEvents(), "PlaybackFinished").size(), 1u);
}

}  // namespace
