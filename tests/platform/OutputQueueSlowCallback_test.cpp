// A client that blocks inside a callback holds up only that queue's later callbacks, never
// its sound: with 2 s of audio queued on the real-time null output, a buffer callback that blocks
// for 1 s (longer than the queue renders ahead) causes no underrun, and every buffer still comes
// back once, in order, after being heard.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/OutputQueueTestSupport.h"

namespace {
using namespace output_queue_test;

struct SlowClient {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<AudioQueueBufferRef> returned;  // guarded by mutex

  static void BufferDone(void* self, AudioQueueRef, AudioQueueBufferRef buffer) {
    auto* client = static_cast<SlowClient*>(self);
    std::unique_lock<std::mutex> lock(client->mutex);
    if (client->returned.empty()) {
      lock.unlock();
      // The fault under test, not a wait: a client busy for a second (a delegate that blocks).
      std::this_thread::sleep_for(std::chrono::seconds(1));
      lock.lock();
    }
    client->returned.push_back(buffer);
    client->changed.notify_all();
  }
};

TEST(OutputQueueSlowCallback, ABlockingCallbackDelaysOnlyCallbacksNotTheSound) {
  constexpr size_t kBuffers = 20;
  constexpr uint32_t kFramesPerBuffer = 1600;  // 100 ms at 16 kHz
  ASSERT_EQ(AudioOutputSelect("null"), noErr);
  SlowClient client;
  const AudioStreamBasicDescription format = PcmFormat(16000);
  AudioQueueRef queue = nullptr;
  ASSERT_EQ(AudioQueueNewOutput(&format, &SlowClient::BufferDone, &client, nullptr, nullptr, 0, &queue), noErr);
  const std::vector<int16_t> samples = Ramp(kFramesPerBuffer);
  const uint32_t bytes = uint32_t(samples.size() * sizeof(int16_t));
  std::vector<AudioQueueBufferRef> enqueued(kBuffers);
  for (AudioQueueBufferRef& buffer : enqueued) {
    ASSERT_EQ(AudioQueueAllocateBuffer(queue, bytes, &buffer), noErr);
    std::memcpy(buffer->mAudioData, samples.data(), bytes);
    buffer->mAudioDataByteSize = bytes;
    ASSERT_EQ(AudioQueueEnqueueBuffer(queue, buffer, 0, nullptr), noErr);
  }
  ASSERT_EQ(AudioQueueStart(queue, nullptr), noErr);
  ASSERT_EQ(AudioQueueStop(queue, false), noErr);
  {
    std::unique_lock<std::mutex> lock(client.mutex);
    EXPECT_TRUE(client.changed.wait_for(lock, kDeadline, [&] { return client.returned.size() == kBuffers; }));
    EXPECT_EQ(client.returned, enqueued);
  }
  AudioQueueCounters counters;
  ASSERT_EQ(AudioQueueGetCounters(queue, &counters), noErr);
  EXPECT_EQ(counters.underruns, 0u);
  EXPECT_EQ(counters.framesPlayed, kBuffers * kFramesPerBuffer);
  AudioQueueDispose(queue, true);
  EXPECT_TRUE(AudioQueueWaitForReleases(std::chrono::duration<double>(kDeadline).count()));
}

}  // namespace
