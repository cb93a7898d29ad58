// Plan: pausing and restarting the queue for the client's pause and the system's interruption.
// The decision table of pauseIfNeeded and resumeIfNeeded over the three bits, with their TRACE
// lines showing the masked values (0/8, 0/4, 0/1024); a refused or failed restart;
// session interruptions delivered by the session to a managing player: during play, after a
// refused resume, during a client's pause, reaching the next sentence before it listens, outliving
// its listener through a change of format, with no request, without a type and with an unknown type.
// Not here: the first start's refusals (playback tests), pause and resume called twice (transport
// tests). That nothing follows a notification is checked once the session has delivered it, which
// is all the handler's work.
#include "Audio/Platform/Application.h"
#include "unit/PlayerTestFixture.h"

namespace {

using Lines = std::vector<std::string>;

constexpr size_t kBuffer = AudioBufPlayer::kBufferByteSize;
constexpr uint16_t kPlaying = AudioBufPlayer::PS_ACTIVE | AudioBufPlayer::PS_QUEUE_STARTED;
constexpr uint16_t QP = AudioBufPlayer::PS_QUEUE_PAUSED;
constexpr uint16_t UP = AudioBufPlayer::PS_USER_PAUSED;
constexpr uint16_t IN = AudioBufPlayer::PS_INTERRUPTED;

TEST_F(PlayerTest, PauseAndResumeFollowTheDecisionTableAndTraceTheMaskedBits) {
  ASSERT_EQ(play(testBytes(kBuffer), kPCM16K), AudioBufPlayerError_OK);
  struct Row { uint16_t bits; bool pauses, restarts; };
  const Row rows[] = {{0, false, false},      {UP, true, false},      {IN, true, false},
                      {UP | IN, true, false}, {QP, false, true},      {QP | UP, false, false},
                      {QP | IN, false, false}, {QP | UP | IN, false, false}};
  for (const Row& row : rows) {
    const std::string bits = std::to_string(row.bits & QP) + ", (isPaused = " + std::to_string(row.bits & UP) + ", ";
    const std::string in = std::to_string(row.bits & IN) + ")";
    for (const bool pausing : {true, false}) {
      SCOPED_TRACE(testing::Message() << (pausing ? "pause" : "resume") << " with 0x" << std::hex << row.bits);
      peer().setStatus(kPlaying | row.bits);
      fake::clearCalls();
      CapturedLog log;
      pausing ? peer().pauseIfNeeded() : peer().resumeIfNeeded();
      const bool acts = pausing ? row.pauses : row.restarts;
      EXPECT_EQ(fake::calls(), acts ? Lines{pausing ? "AudioQueuePause q=1" : "AudioQueueStart q=1"} : Lines{});
      EXPECT_EQ(peer().status(), kPlaying | (acts ? (pausing ? row.bits | QP : 0) : row.bits));
      const std::string trace = pausing ? "pauseIfNeeded: actuallyPaused = " + bits + "interrupt = " + in
                                        : "resumeIfNeeded: actuallyPaused = " + bits + "interruptionPaused = " + in;
      EXPECT_EQ(log.countLines("TRACE", trace), 1u);
      EXPECT_EQ(log.countLines("TRACE", "Queue pause: 0"), pausing && acts ? 1u : 0u);
    }
  }
  const std::vector<DelegateEvent> events = deliveredEvents();
  EXPECT_EQ(eventsNamed(events, "PlayerWasResumed").size(), 1u);
  EXPECT_EQ(eventsNamed(events, "PlayerWasPaused").size(), 0u);
}

TEST_F(PlayerTest, RefusedOrFailedRestartKeepsTheQueuePausedAndSaysWhy) {
  struct Case {
    const char* text;
    OSStatus status;
    std::function<void()> refuse;
    const char* why;  // the ERROR line that follows, or none when the failure is reported instead
  };
  const Case cases[] = {
      {"!int", kAudioSessionErr_Interrupted, [] { ASSERT_TRUE(fake::beginInterruption()); },
       "Can't resume while audio is in interrupt!"},
      {"!pla", kAudioSessionErr_InBackground, [] { Application::sharedApplication().setInBackground(true); },
       "Can't switch sentence while in background!"},
      {"qdev", kAudioQueueErr_DeviceFailed, [] { fake::failCall("AudioQueueStart", kAudioQueueErr_DeviceFailed); },
       nullptr}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    startOver();
    ASSERT_EQ(play(testBytes(kBuffer), kPCM16K), AudioBufPlayerError_OK);
    player->pause();
    c.refuse();
    CapturedLog log;
    player->resume();

    EXPECT_EQ(peer().status(), kPlaying | QP);
    EXPECT_EQ(fake::calls("AudioQueueStart").back(), "AudioQueueStart q=1 -> " + std::string(c.text));
    const std::string status = std::to_string(c.status);
    EXPECT_EQ(log.countLines("ERROR", "AudioQueue start errored error: " + status + " (" + c.text + ")"), 1u);
    EXPECT_EQ(log.count("[ERROR]"), c.why ? 2u : 1u);
    if (c.why) {
      EXPECT_EQ(log.countLines("ERROR", c.why), 1u);
    }
    EXPECT_EQ(player->audioSessionSetCount(), 0) << "the session use stays open";
    const std::vector<DelegateEvent> events = deliveredEvents();
    EXPECT_EQ(eventsNamed(events, "PlayerWasResumed").size(), 0u);
    const std::vector<DelegateEvent> errors = eventsNamed(events, "PlayerError");
    ASSERT_EQ(errors.size(), c.why ? 0u : 1u);
    for (const DelegateEvent& error : errors) {
      EXPECT_EQ(error.error, AudioBufPlayerError_START_PLAYBACK_FAILED);
      EXPECT_EQ(error.description, "AudioQueueStart returned error " + status + " (qdev)");
    }
  }
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

  static std::vector<AudioBufPlayerPauseSource> sources(const std::vector<DelegateEvent>& events) {
    std::vector<AudioBufPlayerPauseSource> result;
    for (const DelegateEvent& event : eventsNamed(events, "PlayerWasPaused")) result.push_back(event.source);
    std::sort(result.begin(), result.end());
    return result;
  }
};

TEST_F(InterruptionTest, InterruptionPausesTheSentenceAndItsEndResumesIt) {
  CapturedLog log;
  ASSERT_TRUE(fake::beginInterruption());
  EXPECT_EQ(peer().status(), kPlaying | IN | QP);
  EXPECT_EQ(fake::countCalls("AudioQueuePause q=1"), 1u);
  ASSERT_TRUE(fake::endInterruption());
  EXPECT_EQ(peer().status(), kPlaying);
  EXPECT_EQ(fake::countCalls("AudioQueueStart q=1"), 2u);
  EXPECT_EQ(log.countLines("DEBUG", "AudioSession interruption began"), 1u);
  EXPECT_EQ(log.countLines("DEBUG", "AudioSession interruption ended"), 1u);
  const std::vector<DelegateEvent> events = deliveredEvents();
  EXPECT_EQ(sources(events), std::vector{AudioBufPlayerPauseSource_INTERRUPT});
  EXPECT_EQ(eventsNamed(events, "PlayerWasResumed").size(), 1u);
}

TEST_F(InterruptionTest, InterruptionsEndRestartsTheQueueAfterAResumeWasRefused) {
  ASSERT_TRUE(fake::beginInterruption());
  player->resume();  // refused with "!int", which gives back the session use
  EXPECT_EQ(peer().status(), kPlaying | QP);
  ASSERT_TRUE(fake::endInterruption());
  EXPECT_EQ(peer().status(), kPlaying);
  EXPECT_EQ(eventsNamed(deliveredEvents(), "PlayerWasResumed").size(), 1u);
}

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
  EXPECT_EQ(sources(events), (std::vector{AudioBufPlayerPauseSource_USER, AudioBufPlayerPauseSource_INTERRUPT}));
  EXPECT_EQ(eventsNamed(events, "PlayerWasResumed").size(), 1u);
}

TEST_F(InterruptionTest, InterruptionThatReachesTheNextSentenceBeforeItListensHoldsNothing) {
  // The session's call got past the subscription check, then waited for the mutex while the
  // sentence that listened ended and the next one, which listens from its first start, began.
  player->stop();
  player->start();
  ASSERT_FALSE(peer().isListeningInterruptions());
  peer().setStatus(AudioBufPlayer::PS_ACTIVE);
  player->audioSessionInterrupted(interruptionNotification(AVAudioSessionInterruptionTypeBegan));
  EXPECT_EQ(peer().status(), AudioBufPlayer::PS_ACTIVE) << "a hold that no interruption's end would lift";
  EXPECT_EQ(sources(deliveredEvents()), std::vector<AudioBufPlayerPauseSource>{});
}

TEST_F(InterruptionTest, HoldThatOutlivedItsListenerEndsWithTheInterruptionAtTheNewQueuesStart) {
  ASSERT_TRUE(fake::beginInterruption());
  // A change of format mid-sentence replaces the queue and closes the session use that listened.
  const AudioStreamBasicDescription pcm16k{
      16000.0, kAudioFormatLinearPCM, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked, 2, 1, 2, 1, 16, 0};
  ASSERT_EQ(peer().openAudioQueue(pcm16k), noErr);
  ASSERT_FALSE(peer().isListeningInterruptions());
  auto producer = std::async(std::launch::async, [&] { return append(testBytes(kBuffer), kPCM16K); });
  const StopOnExit stopOnFailure(*player);
  ASSERT_TRUE(fake::endInterruption());  // before or after the producer waits: either way it goes on
  ASSERT_EQ(producer.wait_for(fake::kWaitTimeout), std::future_status::ready);
  EXPECT_EQ(peer().status(), kPlaying);
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

TEST_F(InterruptionTest, InterruptionWithoutTypeEndsItAndAnUnknownTypeIsIgnored) {
  struct Case { std::optional<int64_t> type; uint16_t status; size_t starts, endedLines; };
  for (const Case& c : {Case{std::nullopt, kPlaying, 2, 1}, Case{2, kPlaying | IN | QP, 1, 0}}) {
    SCOPED_TRACE(c.type ? "type 2" : "no type");
    startOver();
    // Posted without changing the session's state, so that a restart is not refused.
    ASSERT_TRUE(fake::postInterruption(AVAudioSessionInterruptionTypeBegan));
    CapturedLog log;
    ASSERT_TRUE(fake::postInterruption(c.type));
    EXPECT_EQ(peer().status(), c.status);
    EXPECT_EQ(fake::countCalls("AudioQueueStart q=1"), c.starts);
    EXPECT_EQ(log.countLines("DEBUG", "AudioSession interruption ended"), c.endedLines);
    EXPECT_EQ(log.count("AudioSession interruption"), c.endedLines);
  }
}

}  // namespace
