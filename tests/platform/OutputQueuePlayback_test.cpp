// What the sound output hears from a queue, and when buffers come back, on the manual clock, which
// makes every step deterministic (AudioOutputManualAdvance waits for the queue's thread).
#include "platform/OutputQueueTestSupport.h"

namespace output_queue_test {
namespace {

constexpr double kRate = 16000;
constexpr size_t kFadeFrames = 80;  // 5 ms at 16 kHz
constexpr int16_t kLevel = 10000;

template <typename... Parts>
std::vector<int16_t> Concat(const Parts&... parts) {
  std::vector<int16_t> all;
  (all.insert(all.end(), parts.begin(), parts.end()), ...);
  return all;
}

std::vector<int16_t> Steady(size_t frames) { return std::vector<int16_t>(frames, kLevel); }

void ExpectFadeOut(const std::vector<int16_t>& heard) {
  ASSERT_FALSE(heard.empty());
  EXPECT_LE(heard.size(), kFadeFrames);
  EXPECT_LT(heard.front(), kLevel);
  EXPECT_LE(heard.back(), kLevel / int16_t(kFadeFrames) + 1);
  EXPECT_TRUE(std::is_sorted(heard.rbegin(), heard.rend()));
}

// An output that holds its audio a while before the listener hears it delays the returns, the time
// and the drain's end by that much, but not what is heard.
TEST(OutputQueuePlayback, BuffersComeBackInOrderOnceTheirLastFrameIsHeardAndTimeFollows) {
  for (const uint32_t latency : {0u, 320u}) {
    SCOPED_TRACE(testing::Message() << "latency " << latency);
    constexpr uint32_t kStep = 20;
    TestQueue queue(PcmFormat(kRate), "manual", 1.0, latency / kRate);
    const std::vector<int16_t> first = Ramp(301, 1), second = Ramp(499, 1000);
    AudioQueueBufferRef a = queue.enqueue(first), b = queue.enqueue(second);
    ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
    ASSERT_EQ(AudioQueueStop(queue.handle(), false), noErr);
    EXPECT_EQ(queue.isRunning(), 1u) << "until the queued audio has played";
    std::vector<int16_t> heard;
    for (uint32_t taken = kStep; taken <= 800 + latency + kStep; taken += kStep) {
      const std::vector<int16_t> part = queue.advance(kStep);
      heard.insert(heard.end(), part.begin(), part.end());
      queue.advance(0);  // lets the queue's thread deliver what is due
      const uint32_t listened = std::min(taken - std::min(taken, latency), 800u);
      std::vector<Callback> expected = {RunningIs(1)};
      if (listened >= 301) expected.push_back(Returned(a));
      if (listened == 800) expected.insert(expected.end(), {Returned(b), RunningIs(0)});
      ASSERT_EQ(queue.log().callbacks(), expected) << "after " << taken << " frames";
      ASSERT_EQ(queue.sampleTime(), listened) << "after " << taken << " frames";
    }
    EXPECT_EQ(heard, Concat(first, second));
  }
}

// A buffer enqueued during a drain joins it until the output has played up to the drain's end;
// after that it waits for the next start.
TEST(OutputQueuePlayback, StopAfterQueuedAudioPlaysWhatIsEnqueuedUntilItRunsDry) {
  for (const uint32_t heardBeforeLateBuffer : {0u, 1000u, 1800u}) {
    SCOPED_TRACE(heardBeforeLateBuffer);
    const bool joins = heardBeforeLateBuffer < 1700;
    TestQueue queue(PcmFormat(kRate));
    const std::vector<int16_t> first = Ramp(1000, 1), second = Ramp(700, 3000), late = Ramp(300, 9000);
    AudioQueueBufferRef a = queue.enqueue(first), b = queue.enqueue(second);
    ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
    ASSERT_EQ(AudioQueueStop(queue.handle(), false), noErr);
    std::vector<int16_t> heard = queue.advance(heardBeforeLateBuffer);  // 0: the drain's end is rendered
    AudioQueueBufferRef d = queue.enqueue(late);
    const std::vector<int16_t> rest = queue.advance(2000);
    heard.insert(heard.end(), rest.begin(), rest.end());
    queue.advance(0);

    EXPECT_EQ(heard, joins ? Concat(first, second, late) : Concat(first, second));
    std::vector<Callback> expected = {RunningIs(1), Returned(a), Returned(b), RunningIs(0)};
    if (joins) expected.insert(expected.end() - 1, Returned(d));
    EXPECT_EQ(queue.log().callbacks(), expected);
    if (joins) continue;
    ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
    EXPECT_EQ(queue.advance(300), late);
  }
}

// Both fade out and hold the time. A stop gives back every unplayed buffer and its audio never
// plays; a pause keeps them for the next start, which fades in. Neither ends the next run early.
TEST(OutputQueuePlayback, ImmediateStopAndPauseFadeOutAndHoldTheTime) {
  for (const bool pause : {false, true}) {
    SCOPED_TRACE(pause ? "pause" : "immediate stop");
    TestQueue queue(PcmFormat(kRate));
    AudioQueueBufferRef a = queue.enqueue(Steady(1000)), b = queue.enqueue(Steady(1000));
    ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
    EXPECT_EQ(queue.advance(500), Steady(500));
    ASSERT_EQ(pause ? AudioQueuePause(queue.handle()) : AudioQueueStop(queue.handle(), true), noErr);
    EXPECT_EQ(queue.isRunning(), pause ? 1u : 0u);
    const std::vector<int16_t> fade = queue.advance(1000);
    ExpectFadeOut(fade);
    const auto held = uint32_t(500 + fade.size());
    EXPECT_TRUE(queue.advance(1000).empty());
    EXPECT_EQ(queue.sampleTime(), held);

    const std::vector<int16_t> next = Ramp(400, 100);
    AudioQueueBufferRef c = queue.enqueue(next);
    ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
    const std::vector<int16_t> heard = queue.advance(pause ? 2400 - held : 400);
    queue.advance(100);
    if (pause) {
      EXPECT_LT(heard.front(), kLevel / 4);
      EXPECT_TRUE(std::is_sorted(heard.begin(), heard.begin() + kFadeFrames)) << "fades in";
      EXPECT_EQ(std::vector<int16_t>(heard.begin() + kFadeFrames, heard.end()),
                Concat(Steady(2000 - held - kFadeFrames), next));
      EXPECT_EQ(queue.log().callbacks(), (std::vector<Callback>{RunningIs(1), Returned(a), Returned(b), Returned(c)}));
    } else {
      EXPECT_EQ(heard, next);
      EXPECT_EQ(queue.log().callbacks(), (std::vector<Callback>{RunningIs(1), Returned(a), Returned(b), RunningIs(0),
                                                                RunningIs(1), Returned(c)}));
    }
  }
}

TEST(OutputQueuePlayback, RunningDryFadesIntoSilenceAndBackAndIsCountedOnce) {
  TestQueue queue(PcmFormat(kRate));
  ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
  EXPECT_TRUE(queue.advance(500).empty()) << "nothing is heard before the first frame";
  queue.enqueue(Steady(100));
  const std::vector<int16_t> beforeGap = queue.advance(300);
  ASSERT_EQ(beforeGap.size(), 300u);
  EXPECT_EQ(std::vector<int16_t>(beforeGap.begin(), beforeGap.begin() + 20), Steady(20));
  ExpectFadeOut(std::vector<int16_t>(beforeGap.begin() + 20, beforeGap.begin() + 100));
  EXPECT_GT(beforeGap[99], 0) << "the gap's silence is the gap's own";
  EXPECT_EQ(std::vector<int16_t>(beforeGap.begin() + 100, beforeGap.end()), std::vector<int16_t>(200, 0));
  EXPECT_EQ(queue.advance(300), std::vector<int16_t>(300, 0));
  queue.enqueue(Steady(100));
  const std::vector<int16_t> afterGap = queue.advance(100);
  ASSERT_EQ(afterGap.size(), 100u);
  EXPECT_TRUE(std::is_sorted(afterGap.begin(), afterGap.end())) << "fades in";
  EXPECT_LE(afterGap.front(), kLevel / int16_t(kFadeFrames) + 1);
  EXPECT_EQ(std::vector<int16_t>(afterGap.begin() + kFadeFrames - 1, afterGap.end()), Steady(100 - kFadeFrames + 1));

  AudioQueueCounters counters;
  ASSERT_EQ(AudioQueueGetCounters(queue.handle(), &counters), noErr);
  EXPECT_EQ(counters.underruns, 1u);
  EXPECT_EQ(counters.silentFramesInserted, 500u);
  EXPECT_EQ(counters.framesPlayed, 200u);
  EXPECT_EQ(queue.sampleTime(), 200) << "silence is not enqueued audio";
}

}  // namespace
}  // namespace output_queue_test
