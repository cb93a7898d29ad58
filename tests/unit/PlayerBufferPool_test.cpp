// Plan: the pool of 20 queue buffers as a producer sees it. Twenty enqueues take every slot in
// order and the next waits for a returned buffer, whose slot it takes; the end of the request
// wakes a waiting producer, which enqueues nothing more; a failed enqueue is reported once and
// keeps its slot; buffers returned from many threads at once while a producer feeds (run under
// ThreadSanitizer: no race, and no lost wake-up, since the producer finishes).
// Not here: which bytes go into a buffer (packing tests) and the progress poll that each return
// also runs (progress tests). The fake returns buffers oldest first, so a returned slot is always
// the lowest taken one.
#include <future>

#include "unit/PlayerTestFixture.h"

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr size_t kBuffer = AudioBufPlayer::kBufferByteSize;

std::string enqueued(int buffer) {
  return "AudioQueueEnqueueBuffer q=1 buf=" + std::to_string(buffer) + " bytes=5120 packets=0";
}

bool hasStatus(const AudioBufPlayerTestPeer& peer, uint16_t flags) { return (peer.status() & flags) == flags; }

TEST_F(PlayerTest, TwentyEnqueuesTakeEverySlotAndTheNextWaitsForAReturnedOne) {
  auto producer = std::async(std::launch::async, [&] { return play(testBytes(22 * kBuffer), kPCM16K); });
  const StopOnExit stopOnFailure(*player);
  ASSERT_TRUE(fake::waitForCalls("AudioQueueEnqueueBuffer", 20));
  Lines twenty;
  for (int buffer = 1; buffer <= 20; ++buffer) twenty.push_back(enqueued(buffer));
  EXPECT_EQ(fake::calls("AudioQueueEnqueueBuffer"), twenty);
  EXPECT_TRUE(hasStatus(peer(), AudioBufPlayer::PS_WAITING_FOR_BUFFER));
  EXPECT_EQ(producer.wait_for(0s), std::future_status::timeout);

  auto queue = fake::lastQueue();
  for (int buffer = 1; buffer <= 2; ++buffer) {
    ASSERT_TRUE(queue.playBack());
    ASSERT_TRUE(fake::waitForCalls("AudioQueueEnqueueBuffer", size_t(20 + buffer)));
    EXPECT_EQ(fake::calls("AudioQueueEnqueueBuffer").back(), enqueued(buffer));
  }
  ASSERT_EQ(producer.wait_for(fake::kWaitTimeout), std::future_status::ready);
  EXPECT_EQ(producer.get(), AudioBufPlayerError_OK);
  EXPECT_EQ(fake::countCalls("AudioQueueEnqueueBuffer"), 22u);
}

TEST_F(PlayerTest, EndOfRequestWakesAWaitingProducerWhichEnqueuesNothingMore) {
  struct Case { const char* end; std::function<void(AudioBufPlayer&)> endRequest; };
  const Case cases[] = {
      {"stop", [](AudioBufPlayer& p) { p.stop(); }},
      {"queue stopped", [](AudioBufPlayer&) { ASSERT_TRUE(fake::lastQueue().reportRunning(false)); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.end);
    startOver();
    auto producer = std::async(std::launch::async, [&] { return play(testBytes(21 * kBuffer), kPCM16K); });
    const StopOnExit stopOnFailure(*player);
    ASSERT_TRUE(fake::waitForCalls("AudioQueueEnqueueBuffer", 20));
    c.endRequest(*player);
    ASSERT_EQ(producer.wait_for(fake::kWaitTimeout), std::future_status::ready);
    EXPECT_EQ(producer.get(), AudioBufPlayerError_OK);
    EXPECT_EQ(fake::countCalls("AudioQueueEnqueueBuffer"), 20u);
    EXPECT_FALSE(hasStatus(peer(), AudioBufPlayer::PS_ACTIVE));
  }
}

TEST_F(PlayerTest, FailedEnqueueIsReportedOnceAndKeepsItsSlot) {
  fake::failCall("AudioQueueEnqueueBuffer", kAudioQueueErr_InvalidBuffer);
  CapturedLog log;
  ASSERT_EQ(play(testBytes(2 * kBuffer), kPCM16K), AudioBufPlayerError_OK);

  // The start follows the first enqueue that succeeded, not the failed one.
  EXPECT_EQ(callsWith({"AudioQueueEnqueueBuffer", "AudioQueueStart"}),
            (Lines{enqueued(1) + " -> qbuf", enqueued(2), "AudioQueueStart q=1"}));

  const auto free = peer().freeBuffers();
  EXPECT_EQ((std::array{free[0], free[1], free[2]}), (std::array{false, false, true})) << "slots 0, 1 and 2 free?";
  const std::string status = std::to_string(kAudioQueueErr_InvalidBuffer);
  EXPECT_EQ(log.countLines("ERROR", "AudioQueue enque audio errored error: " + status + " (qbuf)"), 1u);
  const std::vector<DelegateEvent> errors = eventsNamed(deliveredEvents(), "PlayerError");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].error, AudioBufPlayerError_QUEUE_FAIL);
  EXPECT_EQ(errors[0].description, "AudioQueueEnqueueBuffer returned error " + status + " (qbuf)");
}

TEST_F(PlayerTest, BuffersReturnedFromManyThreadsWhileAProducerFeedsLoseNoWakeUp) {
  constexpr size_t kChunks = 40;
  constexpr size_t kChunkBytes = 12000;  // two full buffers and a part: three enqueues per chunk
  std::vector<uint8_t> fed;
  auto producer = std::async(std::launch::async, [&] {
    AudioBufPlayerError result = AudioBufPlayerError_OK;
    for (size_t i = 0; i < kChunks && result == AudioBufPlayerError_OK; ++i) {
      const std::vector<uint8_t> chunk = testBytes(kChunkBytes, uint8_t(i));
      fed.insert(fed.end(), chunk.begin(), chunk.end());
      result = i == 0 ? play(chunk, kPCM16K) : append(chunk, kPCM16K);
    }
    return result;
  });
  const StopOnExit stopOnFailure(*player);

  ASSERT_TRUE(fake::waitForCall("AudioQueueNewOutput"));
  auto queue = fake::lastQueue();
  size_t returned = 0;
  while (returned < 3 * kChunks) {
    ASSERT_TRUE(fake::waitForCalls("AudioQueueEnqueueBuffer", returned + 1));
    ASSERT_TRUE(queue.playBackFromManyThreads());
    const fake::QueueState state = queue.state();
    returned = state.enqueued.size() - state.waitingBuffers();
  }
  ASSERT_EQ(producer.wait_for(fake::kWaitTimeout), std::future_status::ready);
  EXPECT_EQ(producer.get(), AudioBufPlayerError_OK);
  EXPECT_EQ(queue.state().allEnqueuedBytes(), fed);
}

}  // namespace
