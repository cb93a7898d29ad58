// Pause, resume, start, stop and volume as the caller sees them: the producer held before the
// first start and released by resume or by stop; the queue calls and notifications of pause and
// resume sequences with and without a request; stop of an idle player with a queue left open; the
// volume of the open and of the next queue; calls made from inside a delegate call that holds the
// player's lock.
#include <future>
#include <sstream>
#include <thread>

#include "unit/PlayerTestFixture.h"

namespace {

using namespace std::chrono_literals;
using PlayerTransport = PlayerTest;

TEST_F(PlayerTransport, PauseBeforeTheFirstBufferHoldsTheProducerUntilResumeOrStop) {
  for (const bool resumes : {true, false}) {
    SCOPED_TRACE(resumes ? "resume" : "stop");
    startOver();
    // The format shows only in the second chunk: the pause comes while the request has no queue.
    fake::setParserBehaviour(
        [](fake::ParseContext& parse) { return parse.call() == 1 ? noErr : parse.parseByDefault(); });
    ASSERT_EQ(play(testBytes(100), kMP3), AudioBufPlayerError_OK);
    player->pause();
    auto producer = std::async(std::launch::async, [&] { return append(testBytes(836), kMP3); });
    const StopOnExit stopOnFailure(*player);
    ASSERT_TRUE(fake::waitForCall("AudioQueueEnqueueBuffer q=1"));
    // The enqueue was made with the mutex held: the producer cannot return before it has waited.
    EXPECT_NE(producer.wait_for(0s), std::future_status::ready);

    resumes ? player->resume() : player->stop();
    ASSERT_EQ(producer.wait_for(fake::kWaitTimeout), std::future_status::ready);
    EXPECT_EQ(producer.get(), AudioBufPlayerError_OK);
    EXPECT_EQ(fake::countCalls("AudioQueuePause"), 0u);
    EXPECT_EQ(fake::countCalls("AudioQueueStart"), resumes ? 1u : 0u);
    if (!resumes) {
      EXPECT_EQ(play(testBytes(100), kPCM8K), AudioBufPlayerError_STOPPED);
    }
    // Told as with a queue to pause: the pause, and its end.
    const std::vector<DelegateEvent> events = deliveredEvents();
    EXPECT_EQ(eventsNamed(events, "PlayerWasPaused").size(), 1u);
    EXPECT_EQ(eventsNamed(events, "PlayerWasResumed").size(), resumes ? 1u : 0u);
  }
}

TEST_F(PlayerTransport, PauseAndResumeNotifyAndTouchTheQueueOnlyWhenNeeded) {
  constexpr uint16_t kPlaying = AudioBufPlayer::PS_ACTIVE | AudioBufPlayer::PS_QUEUE_STARTED;
  const struct {
    bool duringRequest;
    const char* steps;
    size_t queuePauses, queueStarts, paused, resumed;
    uint16_t status;
  } cases[] = {
      {true, "pause pause", 1, 1, 2, 0, kPlaying | AudioBufPlayer::PS_USER_PAUSED | AudioBufPlayer::PS_QUEUE_PAUSED},
      {true, "resume", 0, 1, 0, 0, kPlaying},
      {true, "pause resume resume", 1, 2, 1, 1, kPlaying},
      {false, "pause", 0, 0, 1, 0, AudioBufPlayer::PS_USER_PAUSED},
      {false, "pause resume resume", 0, 0, 1, 1, 0},
      {false, "resume", 0, 0, 0, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.duringRequest ? "playing: " : "idle: ") << c.steps);
    startOver();
    player->setDelegate(delegate);
    if (c.duringRequest) {
      ASSERT_EQ(play(testBytes(5120), kPCM8K), AudioBufPlayerError_OK);
    }
    std::istringstream steps(c.steps);
    for (std::string step; steps >> step;) step == "pause" ? player->pause() : player->resume();
    EXPECT_EQ(peer().status(), c.status);
    EXPECT_EQ(fake::countCalls("AudioQueuePause"), c.queuePauses);
    EXPECT_EQ(fake::countCalls("AudioQueueStart"), c.queueStarts);
    const std::vector<DelegateEvent> events = deliveredEvents();
    const std::vector<DelegateEvent> paused = eventsNamed(events, "PlayerWasPaused");
    EXPECT_EQ(paused.size(), c.paused);
    for (const DelegateEvent& event : paused) EXPECT_EQ(event.source, AudioBufPlayerPauseSource_USER);
    EXPECT_EQ(eventsNamed(events, "PlayerWasResumed").size(), c.resumed);
  }
}

TEST_F(PlayerTransport, StopOfAnIdlePlayerDisposesOfTheQueueLeftOpen) {
  ASSERT_EQ(play(testBytes(5120), kPCM8K), AudioBufPlayerError_OK);
  ASSERT_EQ(play({}, kPCM8K), AudioBufPlayerError_OK);  // ends the request; its queue stays open
  player->stop();
  EXPECT_EQ(fake::calls("AudioQueueDispose"), std::vector<std::string>{"AudioQueueDispose q=1 immediate=1"});
  EXPECT_EQ(peer().audioQueue(), nullptr);
  EXPECT_EQ(player->audioSessionSetCount(), 0);
  player->stop();
  EXPECT_EQ(fake::countCalls("AudioQueueDispose"), 1u);
  EXPECT_EQ(peer().status(), AudioBufPlayer::PS_STOPPED);
}

TEST_F(PlayerTransport, VolumeAppliesToTheOpenQueueAtOnceAndToTheNextOnlyWhenNotNegative) {
  for (const float volume : {-1.0f, 0.0f}) {
    SCOPED_TRACE(volume);
    startOver();
    ASSERT_EQ(play(testBytes(100), kPCM8K), AudioBufPlayerError_OK);
    player->setVolume(volume);
    EXPECT_EQ(fake::queue(1).state().volume, volume);
    EXPECT_EQ(player->volume(), volume);
    player->stop();
    player->start();
    ASSERT_EQ(play(testBytes(100), kPCM8K), AudioBufPlayerError_OK);
    const std::optional<float> next = fake::queue(2).state().volume;
    EXPECT_EQ(next, volume < 0 ? std::nullopt : std::optional(volume));
  }
}

// Calls the player back from inside playerWillStartPlayback, as a new user might.
class CallingBackDelegate : public RecordingDelegate {
 public:
  explicit CallingBackDelegate(std::function<void(AudioBufPlayer&)> callBack) : callBack_(std::move(callBack)) {}
  void playerWillStartPlayback(AudioBufPlayer* player) override {
    RecordingDelegate::playerWillStartPlayback(player);
    callBack_(*player);
  }

 private:
  const std::function<void(AudioBufPlayer&)> callBack_;
};

TEST_F(PlayerTransport, CallFromInsideALockedDelegateCallIsRefusedInsteadOfDeadlocking) {
  const std::vector<uint8_t> chunk = testBytes(100, 1);
  AudioBufPlayerError innerResult = AudioBufPlayerError_OK;
  struct Case { const char* operation; std::function<void(AudioBufPlayer&)> call; AudioBufPlayerError returns; };
  const Case cases[] = {
      {"pause", [](AudioBufPlayer& p) { p.pause(); }, AudioBufPlayerError_OK},
      {"resume", [](AudioBufPlayer& p) { p.resume(); }, AudioBufPlayerError_OK},
      {"start", [](AudioBufPlayer& p) { p.start(); }, AudioBufPlayerError_OK},
      {"stop", [](AudioBufPlayer& p) { p.stop(); }, AudioBufPlayerError_OK},
      {"setVolume", [](AudioBufPlayer& p) { p.setVolume(0.1f); }, AudioBufPlayerError_OK},
      {"playData", [&](AudioBufPlayer& p) { innerResult = p.playData(chunk, kPCM8K, nullptr, 0.0); },
       AudioBufPlayerError_STOPPED},
      {"appendAudioData", [&](AudioBufPlayer& p) { innerResult = p.appendAudioData(chunk, kPCM8K, nullptr, 0.0); },
       AudioBufPlayerError_STOPPED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.operation);
    startOver();
    innerResult = AudioBufPlayerError_OK;
    auto callingBack = std::make_shared<CallingBackDelegate>(c.call);
    CapturedLog log;
    std::promise<AudioBufPlayerError> outer;
    std::future<AudioBufPlayerError> outerResult = outer.get_future();
    // Its own thread, so that a deadlock fails the test instead of hanging it: that thread and the
    // player it holds are then left behind.
    std::thread([player = player, callingBack, outer = std::move(outer)]() mutable {
      outer.set_value(player->playData(testBytes(5120), kPCM8K, callingBack, 0.0));
    }).detach();
    if (outerResult.wait_for(fake::kWaitTimeout) != std::future_status::ready) FAIL() << "deadlocked";

    EXPECT_EQ(outerResult.get(), AudioBufPlayerError_OK);
    EXPECT_EQ(innerResult, c.returns);
    EXPECT_EQ(log.count(std::string("]") + c.operation + " refused: called from inside playerWillStartPlayback"), 1u);
    EXPECT_EQ(peer().status(), AudioBufPlayer::PS_ACTIVE | AudioBufPlayer::PS_QUEUE_STARTED);
    EXPECT_EQ(player->volume(), 0.5f);
    EXPECT_EQ(fake::lastQueue().state().allEnqueuedBytes(), testBytes(5120));
  }
}

}  // namespace
