// Restarting the queue after a pause: a refused or failed restart, and the session's interruptions
// of a managing player during a client's pause and with no request (the plain interruption is the
// end-to-end hold test's).
#include "Audio/Platform/Application.h"
#include "Audio/Platform/NotificationCenter.h"
#include "unit/PlayerTestFixture.h"

namespace {

using Lines = std::vector<std::string>;

constexpr size_t kBuffer = AudioBufPlayer::kBufferByteSize;
constexpr uint16_t kPlaying = AudioBufPlayer::PS_ACTIVE | AudioBufPlayer::PS_QUEUE_STARTED;
constexpr uint16_t QP = AudioBufPlayer::PS_QUEUE_PAUSED;
constexpr uint16_t UP = AudioBufPlayer::PS_USER_PAUSED;
constexpr uint16_t IN = AudioBufPlayer::PS_INTERRUPTED;

TEST_F(PlayerTest, RefusedOrFailedRestartKeepsTheQueuePausedAndOnlyAFailureIsReported) {
  struct Case {
    const char* text;
    std::function<void()> refuse;
    bool reported;
  };
  const Case cases[] = {
      {"!int", [] { ASSERT_TRUE(fake::beginInterruption()); }, false},
      {"!pla", [] { Application::sharedApplication().setInBackground(true); }, false},
      {"qdev", [] { fake::failCall("AudioQueueStart", kAudioQueueErr_DeviceFailed); }, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    startOver();
    ASSERT_EQ(play(testBytes(kBuffer), kPCM16K), AudioBufPlayerError_OK);
    player->pause();
    c.refuse();
    player->resume();

    EXPECT_EQ(peer().status(), kPlaying | QP);
    EXPECT_EQ(fake::calls("AudioQueueStart").back(), "AudioQueueStart q=1 -> " + std::string(c.text));
    EXPECT_EQ(player->audioSessionSetCount(), 0) << "the session use stays open";
    const std::vector<DelegateEvent> events = deliveredEvents();
    EXPECT_EQ(eventsNamed(events, "PlayerWasResumed").size(), 0u);
    const std::vector<DelegateEvent> errors = eventsNamed(events, "PlayerError");
    ASSERT_EQ(errors.size(), c.reported ? 1u : 0u);
    for (const DelegateEvent& error : errors) {
      EXPECT_EQ(error.error, AudioBufPlayerError_START_PLAYBACK_FAILED);
      EXPECT_EQ(error.description, "AudioQueueStart returned error " + std::to_string(kAudioQueueErr_DeviceFailed) +
                                       " (qdev)");
    }
  }
}

// The queue had played out and stopped past the run-out point; a pause and a resume restarted it
// before its stop was reported, so the report reads it running. Only a stop asked for after the
// restart ends the sentence.
TEST_F(PlayerTest, RestartPastTheRunOutPointAsksTheQueueToStopAgain) {
  ASSERT_EQ(play(testBytes(16000), kPCM16K), AudioBufPlayerError_OK);  // 0.5 s in four buffers
  fake::Queue queue = fake::lastQueue();
  queue.setSampleTime(6000);  // 0.375 s played: past the run-out point
  while (queue.playBack()) {
  }
  player->pause();
  player->resume();
  EXPECT_EQ(fake::calls("AudioQueueSt").back(), "AudioQueueStop q=1 immediate=0");
  ASSERT_TRUE(queue.reportRunning(true));
  ASSERT_TRUE(queue.reportRunning(false));
  ASSERT_TRUE(delegate->waitFor("PlaybackFinished"));
  EXPECT_EQ(eventsNamed(deliveredEvents(), "PlaybackFinished").size(), 1u);
}

// A sentence under way on a player that manages the session, so that it hears interruptions.
class InterruptionTest : public PlayerTest {
 protected:
  void SetUp() override {
    PlayerTest::SetUp();
    player = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, true);
    player->start();
    ASSERT_EQ(play(testBytes(kBuffer), kPCM16K), AudioBufPlayerError_OK);
    ASSERT_TRUE(peer().isListeningInterruptions());
  }
};

TEST_F(InterruptionTest, InterruptionDuringTheClientsPauseLeavesTheRestartToResume) {
  player->pause();
  ASSERT_TRUE(fake::beginInterruption());
  EXPECT_EQ(peer().status(), kPlaying | UP | IN | QP);
  EXPECT_EQ(fake::countCalls("AudioQueuePause"), 1u);
  ASSERT_TRUE(fake::endInterruption());
  EXPECT_EQ(peer().status(), kPlaying | UP | QP);
  EXPECT_EQ(fake::countCalls("AudioQueueStart"), 1u);
  player->resume();
  EXPECT_EQ(peer().status(), kPlaying);
  EXPECT_EQ(fake::countCalls("AudioQueueStart"), 2u);
  const std::vector<DelegateEvent> events = deliveredEvents();
  // Reports travel on the concurrent work queue: in no particular order.
  std::vector<AudioBufPlayerPauseSource> sources;
  for (const DelegateEvent& event : eventsNamed(events, "PlayerWasPaused")) sources.push_back(event.source);
  std::sort(sources.begin(), sources.end());
  EXPECT_EQ(sources, (std::vector{AudioBufPlayerPauseSource_USER, AudioBufPlayerPauseSource_INTERRUPT}));
  EXPECT_EQ(eventsNamed(events, "PlayerWasResumed").size(), 1u);
}

TEST_F(InterruptionTest, InterruptionWithoutRequestLeavesNoTrace) {
  // An empty first chunk ends the request but leaves the queue open and the player subscribed.
  ASSERT_EQ(play({}, kPCM16K), AudioBufPlayerError_OK);
  ASSERT_TRUE(peer().isListeningInterruptions());
  ASSERT_TRUE(fake::waitForMainQueue());
  fake::clearCalls();
  CapturedLog log;
  ASSERT_TRUE(fake::beginInterruption());
  ASSERT_TRUE(fake::endInterruption());
  EXPECT_EQ(peer().status(), 0);
  EXPECT_EQ(fake::calls(), Lines{});
  EXPECT_EQ(log.count("AudioSession interruption"), 0u);
  EXPECT_EQ(eventsNamed(deliveredEvents(), "PlayerWasPaused").size(), 0u);
}

// The session's call got past the subscription check, then waited for the mutex while the sentence
// that listened ended and the next one, which listens only from its first start, began.
TEST_F(InterruptionTest, InterruptionThatReachesTheNextSentenceBeforeItListensHoldsNothing) {
  player->stop();
  player->start();
  ASSERT_FALSE(peer().isListeningInterruptions());
  peer().setStatus(AudioBufPlayer::PS_ACTIVE);
  player->audioSessionInterrupted(Notification{AVAudioSessionInterruptionNotification,
                                               std::map<std::string, int64_t>{{AVAudioSessionInterruptionTypeKey, 1}}});
  EXPECT_EQ(peer().status(), AudioBufPlayer::PS_ACTIVE) << "a hold that no interruption's end would lift";
  EXPECT_TRUE(eventsNamed(deliveredEvents(), "PlayerWasPaused").empty());
}

// A change of format mid-sentence replaces the queue and closes the session use that listened; the
// new queue's first start must still hear the interruption's end, before or after the producer waits.
TEST_F(InterruptionTest, HoldThatOutlivedItsListenerEndsWithTheInterruptionAtTheNewQueuesStart) {
  ASSERT_TRUE(fake::beginInterruption());
  const AudioStreamBasicDescription pcm16k{
      16000.0, kAudioFormatLinearPCM, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked, 2, 1, 2, 1, 16, 0};
  ASSERT_EQ(peer().openAudioQueue(pcm16k), noErr);
  ASSERT_FALSE(peer().isListeningInterruptions());
  auto producer = std::async(std::launch::async, [&] { return append(testBytes(kBuffer), kPCM16K); });
  const StopOnExit stopOnFailure(*player);
  ASSERT_TRUE(fake::endInterruption());
  ASSERT_EQ(producer.wait_for(fake::kWaitTimeout), std::future_status::ready);
  EXPECT_EQ(peer().status(), kPlaying);
}

}  // namespace
