// Plan: what the sound output hears from a queue, and when buffers come back, on the manual clock,
// which makes every step deterministic (AudioOutputManualAdvance waits for the queue's thread).
// - Buffers come back in order, each only once its last frame was heard; mSampleTime follows; an
//   output's latency delays both, and a drain's end, but not what is heard.
// - Stop after the queued audio (buffers enqueued during the drain join it) and stop at once; pause holds the position, start continues; the
//   fades that keep pauses and stops from clicking.
// - PCM is one byte stream across buffers of any length; the volume scales samples; an underrun is
//   heard as silence between fades and counted; an output at another rate hears converted audio while time
//   counts at the stream's rate.
// Not here: real-time pacing (OutputDevices_test.cpp), MP3 (OutputQueueMp3_test.cpp).
#include <cmath>
#include <numeric>

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

// Samples that only fall, from about `from` to about 0, within kFadeFrames.
void ExpectFadeOut(const std::vector<int16_t>& heard, int16_t from) {
  ASSERT_FALSE(heard.empty());
  EXPECT_LE(heard.size(), kFadeFrames);
  EXPECT_LT(heard.front(), from);
  EXPECT_LE(heard.back(), from / int16_t(kFadeFrames) + 1);
  EXPECT_TRUE(std::is_sorted(heard.rbegin(), heard.rend()));
}

TEST(OutputQueuePlayback, BuffersComeBackInOrderOnlyOnceTheirLastFrameIsHeard) {
  TestQueue queue(PcmFormat(kRate));
  const std::vector<int16_t> first = Ramp(300, 1), second = Ramp(500, 1000), third = Ramp(200, 5000);
  AudioQueueBufferRef a = queue.enqueue(first), b = queue.enqueue(second), c = queue.enqueue(third);
  ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);

  struct Step {
    uint32_t frames;
    std::vector<Callback> callbacks;  // everything logged after the step
  };
  const std::vector<Step> steps = {
      {299, {RunningIs(1)}},
      {1, {RunningIs(1), Returned(a)}},
      {499, {RunningIs(1), Returned(a)}},
      {1, {RunningIs(1), Returned(a), Returned(b)}},
      {200, {RunningIs(1), Returned(a), Returned(b), Returned(c)}},
  };
  std::vector<int16_t> heard;
  uint32_t consumed = 0;
  for (const Step& step : steps) {
    const std::vector<int16_t> part = queue.advance(step.frames);
    heard.insert(heard.end(), part.begin(), part.end());
    consumed += step.frames;
    queue.advance(0);  // lets the queue's thread deliver what is due
    EXPECT_EQ(queue.log().callbacks(), step.callbacks) << "after " << consumed << " frames";
    EXPECT_EQ(queue.sampleTime(), consumed);
  }
  EXPECT_EQ(heard, Concat(first, second, third));
  EXPECT_EQ(queue.isRunning(), 1u);
}

// An output that holds its audio a while before the listener hears it: buffers come back, time
// moves and the drain ends that much later; what is heard does not change.
TEST(OutputQueuePlayback, AnOutputsLatencyDelaysReturnsTimeAndTheDrainsEndButNotTheSound) {
  constexpr uint32_t kPeriod = 160, kLatency = 320;  // 10 and 20 ms
  TestQueue queue(PcmFormat(kRate), "manual", 1.0, kLatency / kRate);
  const std::vector<int16_t> first = Ramp(300, 1), second = Ramp(500, 1000);
  AudioQueueBufferRef a = queue.enqueue(first), b = queue.enqueue(second);
  ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
  ASSERT_EQ(AudioQueueStop(queue.handle(), false), noErr);
  std::vector<int16_t> heard;
  for (uint32_t taken = kPeriod; taken <= 800 + kLatency + kPeriod; taken += kPeriod) {
    const std::vector<int16_t> part = queue.advance(kPeriod);
    heard.insert(heard.end(), part.begin(), part.end());
    queue.advance(0);
    const uint32_t listened = std::min(taken - std::min(taken, kLatency), 800u);
    std::vector<Callback> expected = {RunningIs(1)};
    if (listened >= 300) expected.push_back(Returned(a));
    if (listened == 800) expected.insert(expected.end(), {Returned(b), RunningIs(0)});
    EXPECT_EQ(queue.log().callbacks(), expected) << "after " << taken << " frames";
    EXPECT_EQ(queue.sampleTime(), listened) << "after " << taken << " frames";
  }
  EXPECT_EQ(heard, Concat(first, second));
}

// A buffer enqueued during a drain joins it, wherever the drain is, until the output has played up
// to the drain's end; after that it waits for the next start.
TEST(OutputQueuePlayback, StopAfterQueuedAudioPlaysEverythingEnqueuedUntilItRunsDry) {
  struct Case {
    uint32_t heardBeforeLateBuffer;
    bool lateBufferJoinsDrain;
  };
  for (const Case c : {Case{0, true}, Case{1000, true}, Case{1800, false}}) {
    SCOPED_TRACE(c.heardBeforeLateBuffer);
    TestQueue queue(PcmFormat(kRate));
    const std::vector<int16_t> first = Ramp(1000, 1), second = Ramp(700, 3000), late = Ramp(300, 9000);
    AudioQueueBufferRef a = queue.enqueue(first), b = queue.enqueue(second);
    ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
    ASSERT_EQ(AudioQueueStop(queue.handle(), false), noErr);
    EXPECT_EQ(queue.isRunning(), 1u);
    std::vector<int16_t> heard = queue.advance(c.heardBeforeLateBuffer);  // 0: the drain's end is rendered
    AudioQueueBufferRef d = queue.enqueue(late);
    const std::vector<int16_t> rest = queue.advance(2000);
    heard.insert(heard.end(), rest.begin(), rest.end());
    queue.advance(0);

    if (c.lateBufferJoinsDrain) {
      EXPECT_EQ(heard, Concat(first, second, late));
      EXPECT_EQ(queue.log().callbacks(),
                (std::vector<Callback>{RunningIs(1), Returned(a), Returned(b), Returned(d), RunningIs(0)}));
      EXPECT_EQ(queue.sampleTime(), 2000);
      continue;
    }
    EXPECT_EQ(heard, Concat(first, second));
    EXPECT_EQ(queue.log().callbacks(), (std::vector<Callback>{RunningIs(1), Returned(a), Returned(b), RunningIs(0)}));
    EXPECT_EQ(queue.isRunning(), 0u);
    ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
    EXPECT_EQ(queue.advance(300), late);
    queue.advance(0);
    EXPECT_EQ(queue.log().callbacks().back(), Returned(d));
    EXPECT_EQ(queue.sampleTime(), 2000);
  }
}

TEST(OutputQueuePlayback, ImmediateStopFadesOutAndGivesBackEveryUnplayedBuffer) {
  TestQueue queue(PcmFormat(kRate));
  const std::vector<int16_t> steady(1000, kLevel);
  AudioQueueBufferRef a = queue.enqueue(steady), b = queue.enqueue(steady), c = queue.enqueue(steady);
  ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
  EXPECT_EQ(queue.advance(500), std::vector<int16_t>(500, kLevel));

  ASSERT_EQ(AudioQueueStop(queue.handle(), true), noErr);
  EXPECT_EQ(queue.isRunning(), 0u);
  const std::vector<int16_t> fade = queue.advance(1000);
  ExpectFadeOut(fade, kLevel);
  EXPECT_EQ(queue.log().callbacks(),
            (std::vector<Callback>{RunningIs(1), Returned(a), Returned(b), Returned(c), RunningIs(0)}));
  EXPECT_EQ(queue.sampleTime(), 500 + fade.size());

  // What was thrown away never plays; the next run starts at full level.
  const std::vector<int16_t> next = Ramp(400, 100);
  queue.enqueue(next);
  ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
  EXPECT_EQ(queue.advance(400), next);
}

TEST(OutputQueuePlayback, PauseHoldsThePositionAndStartContinuesWithoutLosingFrames) {
  TestQueue queue(PcmFormat(kRate));
  const std::vector<int16_t> steady(3000, kLevel);
  AudioQueueBufferRef a = queue.enqueue(steady);
  ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
  EXPECT_EQ(queue.advance(400).size(), 400u);

  ASSERT_EQ(AudioQueuePause(queue.handle()), noErr);
  const std::vector<int16_t> fade = queue.advance(1000);
  ExpectFadeOut(fade, kLevel);
  const double held = queue.sampleTime();
  EXPECT_EQ(held, 400 + fade.size());
  EXPECT_TRUE(queue.advance(5000).empty());
  EXPECT_EQ(queue.sampleTime(), held);
  EXPECT_EQ(queue.isRunning(), 1u);

  ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
  const std::vector<int16_t> rest = queue.advance(3000 - uint32_t(held));
  queue.advance(0);
  EXPECT_LT(rest.front(), kLevel / 4);
  EXPECT_TRUE(std::is_sorted(rest.begin(), rest.begin() + kFadeFrames));
  EXPECT_EQ(std::vector<int16_t>(rest.begin() + kFadeFrames, rest.end()), std::vector<int16_t>(rest.size() - kFadeFrames, kLevel));
  EXPECT_EQ(queue.log().callbacks(), (std::vector<Callback>{RunningIs(1), Returned(a)}));
  EXPECT_EQ(queue.sampleTime(), 3000);
}

TEST(OutputQueuePlayback, LinearPcmIsOneByteStreamWhateverTheBufferLengths) {
  struct Case {
    uint32_t channels;
    std::vector<size_t> chunkBytes;
  };
  const std::vector<Case> cases = {
      {1, {1001, 999}},
      {1, {1, 1, 2, 3, 1, 992}},
      {2, {4001, 3, 4000, 2, 2}},
      {2, {1, 1, 1, 1, 5, 7, 4, 3979}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(::testing::PrintToString(test.chunkBytes));
    TestQueue queue(PcmFormat(kRate, test.channels));
    const size_t total = std::accumulate(test.chunkBytes.begin(), test.chunkBytes.end(), size_t(0));
    const std::vector<uint8_t> bytes = BytesOf(Ramp(total / 2 + 1));
    size_t offset = 0;
    for (size_t chunk : test.chunkBytes) {
      queue.enqueue(bytes.data() + offset, chunk);
      offset += chunk;
    }
    ASSERT_EQ(AudioQueueStop(queue.handle(), false), noErr);  // not running yet: changes nothing
    ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
    ASSERT_EQ(AudioQueueStop(queue.handle(), false), noErr);
    const std::vector<int16_t> heard = queue.advanceUntilStopped();
    const size_t wholeFrames = total / (2 * test.channels);
    EXPECT_EQ(BytesOf(heard), std::vector<uint8_t>(bytes.begin(), bytes.begin() + wholeFrames * 2 * test.channels));
    EXPECT_EQ(queue.log().callbacks().size(), test.chunkBytes.size() + 2);
  }
}

TEST(OutputQueuePlayback, VolumeScalesTheSamplesAndMovesSmoothly) {
  TestQueue queue(PcmFormat(kRate));
  const std::vector<int16_t> input = Ramp(2000, -10000);
  queue.enqueue(input);
  ASSERT_EQ(AudioQueueSetParameter(queue.handle(), kAudioQueueParam_Volume, 0.5f), noErr);
  ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);

  const std::vector<int16_t> half = queue.advance(1000);
  ASSERT_EQ(half.size(), 1000u);
  for (size_t i = 0; i < half.size(); ++i) {
    ASSERT_NEAR(half[i], input[i] * 0.5, 0.5) << "sample " << i;
  }
  ASSERT_EQ(AudioQueueSetParameter(queue.handle(), kAudioQueueParam_Volume, 0.0f), noErr);
  const std::vector<int16_t> quiet = queue.advance(1000);
  ASSERT_EQ(quiet.size(), 1000u);
  // The gain slides at full scale per fade length: from 0.5 to 0 in half of it.
  for (size_t i = 0; i < kFadeFrames / 2; ++i) {
    EXPECT_NEAR(quiet[i], input[1000 + i] * (0.5 - double(i + 1) / kFadeFrames), 1.0) << "sample " << i;
  }
  EXPECT_EQ(std::vector<int16_t>(quiet.begin() + kFadeFrames / 2, quiet.end()),
            std::vector<int16_t>(1000 - kFadeFrames / 2, 0));
}

TEST(OutputQueuePlayback, RunningDryFadesIntoSilenceAndBackAndIsCountedOnce) {
  TestQueue queue(PcmFormat(kRate));
  ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
  EXPECT_TRUE(queue.advance(500).empty()) << "nothing is heard before the first frame";
  EXPECT_EQ(queue.counters().underruns, 0u);

  const std::vector<int16_t> first(100, kLevel), second(100, kLevel);
  queue.enqueue(first);
  const std::vector<int16_t> beforeGap = queue.advance(300);
  ASSERT_EQ(beforeGap.size(), 300u);
  EXPECT_EQ(std::vector<int16_t>(beforeGap.begin(), beforeGap.begin() + 20), std::vector<int16_t>(20, kLevel));
  ExpectFadeOut(std::vector<int16_t>(beforeGap.begin() + 20, beforeGap.begin() + 100), kLevel);
  EXPECT_GT(beforeGap[99], 0) << "the gap's silence is the gap's own";
  EXPECT_EQ(std::vector<int16_t>(beforeGap.begin() + 100, beforeGap.end()), std::vector<int16_t>(200, 0));
  EXPECT_EQ(queue.advance(300), std::vector<int16_t>(300, 0));
  queue.enqueue(second);
  const std::vector<int16_t> afterGap = queue.advance(100);
  ASSERT_EQ(afterGap.size(), 100u);
  EXPECT_TRUE(std::is_sorted(afterGap.begin(), afterGap.end())) << "fades in";
  EXPECT_LE(afterGap.front(), kLevel / int16_t(kFadeFrames) + 1);
  EXPECT_EQ(std::vector<int16_t>(afterGap.begin() + kFadeFrames - 1, afterGap.end()),
            std::vector<int16_t>(100 - kFadeFrames + 1, kLevel));

  const AudioQueueCounters counters = queue.counters();
  EXPECT_EQ(counters.underruns, 1u);
  EXPECT_EQ(counters.silentFramesInserted, 500u);
  EXPECT_EQ(counters.framesPlayed, 200u);
  EXPECT_EQ(queue.sampleTime(), 200) << "silence is not enqueued audio";
  EXPECT_GE(counters.firstFrameLatency, 0.0);
}

TEST(OutputQueuePlayback, AnOutputAtAnotherRateHearsConvertedAudioWhileTimeCountsAtTheStreamRate) {
  TestQueue queue(PcmFormat(kRate), "manual:48000");
  std::vector<int16_t> tone(16000);  // one second of 1 kHz
  for (size_t i = 0; i < tone.size(); ++i) {
    tone[i] = int16_t(std::lround(kLevel * std::sin(2 * M_PI * 1000 * double(i) / kRate)));
  }
  queue.enqueue(tone);
  ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
  ASSERT_EQ(AudioQueueStop(queue.handle(), false), noErr);
  const std::vector<int16_t> heard = queue.advanceUntilStopped();

  EXPECT_NEAR(double(heard.size()), 48000, 48);
  EXPECT_NEAR(queue.sampleTime(), 16000, 16);
  size_t crossings = 0;  // 2000 in one second of 1 kHz
  double energy = 0;
  for (size_t i = 1; i < heard.size(); ++i) {
    crossings += (heard[i - 1] < 0) != (heard[i] < 0);
    energy += double(heard[i]) * heard[i];
  }
  EXPECT_NEAR(double(crossings), 2000, 4);
  EXPECT_NEAR(std::sqrt(energy / double(heard.size())), kLevel / std::sqrt(2.0), kLevel * 0.02);
}

}  // namespace
}  // namespace output_queue_test
