// Pause, resume, start and stop as the caller sees them: the producer held before the first start
// and released by resume or by stop; calls made from inside a delegate call that holds the
// player's lock.
#include <future>
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
    firstChunkHoldsNoFrame();
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
