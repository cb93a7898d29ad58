// Plan: pause, resume, start, stop, volume and destruction as the caller sees them. The producer
// held before the first start and released by resume or by stop; the queue calls and
// notifications of pause and resume sequences with and without a request; stop of an idle player
// with a queue left open; start during a request; the volume of the open and of the next queue.
// Not here: interruptions, refused and failed starts (pause arbitration and session tests).
#include <future>
#include <sstream>

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

TEST_F(PlayerTransport, StartDuringARequestChangesNothing) {
  ASSERT_EQ(play(testBytes(5120), kPCM8K), AudioBufPlayerError_OK);
  const uint16_t status = peer().status();
  fake::clearCalls();
  player->start();
  EXPECT_EQ(peer().status(), status);
  EXPECT_TRUE(fake::calls().empty());
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

TEST_F(PlayerTransport, DroppingTheLastReferenceStopsThePlayerAtOnce) {
  ASSERT_EQ(play(testBytes(5120), kPCM8K), AudioBufPlayerError_OK);
  ASSERT_TRUE(fake::lastQueue().state().started);
  player.reset();
  EXPECT_EQ(fake::calls("AudioQueueDispose"), std::vector<std::string>{"AudioQueueDispose q=1 immediate=1"});
}

}  // namespace
