// The life of a queue and of its handles: statuses, disposal, and what may start it.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <future>
#include <mutex>

#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/OutputQueue/BufferHandleArena.h"
#include "platform/OutputQueueTestSupport.h"

namespace output_queue_test {
namespace {

const AudioStreamBasicDescription kPcm = PcmFormat(16000);
const AudioStreamBasicDescription kMp3 = {16000, kAudioFormatMPEGLayer3, 0, 0, 576, 0, 1, 0, 0};

void IgnoreBuffer(void*, AudioQueueRef, AudioQueueBufferRef) {}

TEST(OutputQueueLifecycle, BadFormatsArgumentsAndStatesGiveTheirStatus) {
  TestQueue pcm(kPcm);
  TestQueue mp3(kMp3);
  const auto create = [](AudioStreamBasicDescription format, auto change) {
    change(format);
    AudioQueueRef queue = nullptr;
    return AudioQueueNewOutput(&format, IgnoreBuffer, nullptr, nullptr, nullptr, 0, &queue);
  };
  AudioQueueBufferRef buffer = nullptr;
  AudioQueueBufferRef empty = nullptr;
  AudioQueueBufferRef mp3Buffer = nullptr;
  ASSERT_EQ(AudioQueueAllocateBuffer(pcm.handle(), 100, &buffer), noErr);
  ASSERT_EQ(AudioQueueAllocateBuffer(pcm.handle(), 100, &empty), noErr);
  ASSERT_EQ(AudioQueueAllocateBuffer(mp3.handle(), 100, &mp3Buffer), noErr);
  buffer->mAudioDataByteSize = 100;
  mp3Buffer->mAudioDataByteSize = 100;
  const AudioStreamPacketDescription whole{0, 0, 100};
  const AudioStreamPacketDescription pastTheEnd{60, 0, 41};
  AudioQueueRef queue = nullptr;
  AudioQueueRef disposed = nullptr;
  ASSERT_EQ(AudioQueueNewOutput(&kPcm, IgnoreBuffer, nullptr, nullptr, nullptr, 0, &disposed), noErr);
  ASSERT_EQ(AudioQueueStart(disposed, nullptr), noErr);
  ASSERT_EQ(AudioQueueDispose(disposed, true), noErr);
  AudioTimeStamp time{};
  uint32_t value = 0;
  uint32_t smallSize = 2;
  uint32_t size = sizeof value;
  const AudioQueueRef q = pcm.handle();
  constexpr OSStatus kFormat = kAudioQueueErr_UnsupportedFormat;
  constexpr OSStatus kParameter = kAudioQueueErr_InvalidParameter;
  const struct {
    const char* call;
    OSStatus status;
    OSStatus expected;
  } cases[] = {
      {"AAC", create(kPcm, [](auto& f) { f.mFormatID = FourCC("aac "); }), kFormat},
      {"3 channels", create(kPcm, [](auto& f) { f.mChannelsPerFrame = 3; }), kFormat},
      {"NaN rate", create(kPcm, [](auto& f) { f.mSampleRate = std::nan(""); }), kFormat},
      {"MP3 at 17 kHz", create(kMp3, [](auto& f) { f.mSampleRate = 17000; }), kFormat},
      {"no format", AudioQueueNewOutput(nullptr, IgnoreBuffer, nullptr, nullptr, nullptr, 0, &queue), kParameter},
      {"allocate 64 MiB", AudioQueueAllocateBuffer(q, 64u << 20, &empty), kParameter},
      {"time before the first start", AudioQueueGetCurrentTime(q, nullptr, &time, nullptr),
       kAudioQueueErr_NotStarted},
      {"another queue's buffer", AudioQueueEnqueueBuffer(q, mp3Buffer, 0, nullptr), kAudioQueueErr_InvalidBuffer},
      {"an empty buffer", AudioQueueEnqueueBuffer(q, empty, 0, nullptr), kAudioQueueErr_BufferEmpty},
      {"PCM with packets", AudioQueueEnqueueBuffer(q, buffer, 1, &whole), kParameter},
      {"PCM", AudioQueueEnqueueBuffer(q, buffer, 0, nullptr), noErr},
      {"the same again", AudioQueueEnqueueBuffer(q, buffer, 0, nullptr), kAudioQueueErr_BufferInQueue},
      {"MP3 without packets", AudioQueueEnqueueBuffer(mp3.handle(), mp3Buffer, 0, nullptr), kParameter},
      {"packet past the end", AudioQueueEnqueueBuffer(mp3.handle(), mp3Buffer, 1, &pastTheEnd), kParameter},
      {"property into null", AudioQueueGetProperty(q, kAudioQueueProperty_IsRunning, nullptr, &size),
       kAudioQueueErr_InvalidProperty},
      {"property too small", AudioQueueGetProperty(q, kAudioQueueProperty_IsRunning, &value, &smallSize),
       kAudioQueueErr_InvalidProperty},
      {"volume above 1", AudioQueueSetParameter(q, kAudioQueueParam_Volume, 1.5f), kParameter},
      {"start a disposed queue", AudioQueueStart(disposed, nullptr), kAudioQueueErr_InvalidQueue},
      {"enqueue on it", AudioQueueEnqueueBuffer(disposed, buffer, 0, nullptr), kAudioQueueErr_InvalidQueue},
      {"a handle never given", AudioQueuePause(reinterpret_cast<AudioQueueRef>(uintptr_t(1) << 60)),
       kAudioQueueErr_InvalidQueue},
  };
  for (const auto& test : cases) EXPECT_EQ(test.status, test.expected) << test.call;
}

// Buffer handles are the addresses of these records: a record handed out twice would let a stale
// handle reach another queue's buffer.
TEST(OutputQueueLifecycle, BufferRecordsAreNeverHandedOutTwiceAcrossArenaRegions) {
  // Enough buffer records to go through more than one 16 MiB region, half released on the way.
  BufferHandleArena& arena = BufferHandleArena::instance();
  constexpr size_t kSlots = (size_t(16) << 20) / BufferHandleArena::kSlotSize * 3 / 2;
  std::vector<void*> all;
  std::vector<void*> live;
  for (size_t i = 0; i < kSlots; ++i) {
    void* slot = arena.allocate();
    ASSERT_NE(slot, nullptr);
    ASSERT_EQ(*static_cast<uint64_t*>(slot), 0u);
    *static_cast<uint64_t*>(slot) = i;
    all.push_back(slot);
    if (i % 2 == 0) {
      arena.release(slot);
    } else {
      live.push_back(slot);
    }
  }
  for (size_t i = 0; i < live.size(); ++i) {
    ASSERT_EQ(*static_cast<uint64_t*>(live[i]), 2 * i + 1) << "a released neighbour took a live slot with it";
    arena.release(live[i]);
  }
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
}

enum class DisposedBy { CallerHoldingTheCallbacksLock, BufferCallback, RunningListener };

struct Disposal {
  DisposedBy by = DisposedBy::CallerHoldingTheCallbacksLock;
  std::mutex mutex;  // the player's
  std::atomic<int> callbacks{0};
  std::atomic<bool> disposed{false};
  OSStatus startAfterwards = noErr;
  std::promise<void> ready;  // a buffer callback waits for the mutex, or a callback has disposed

  static void Called(void* self, AudioQueueRef queue, DisposedBy where) {
    auto& disposal = *static_cast<Disposal*>(self);
    ++disposal.callbacks;
    if (disposal.by == DisposedBy::CallerHoldingTheCallbacksLock && where == DisposedBy::BufferCallback) {
      if (!disposal.disposed.exchange(true)) disposal.ready.set_value();
      std::lock_guard<std::mutex> lock(disposal.mutex);
    } else if (disposal.by == where && !disposal.disposed.exchange(true)) {
      EXPECT_EQ(AudioQueueDispose(queue, true), noErr);
      disposal.startAfterwards = AudioQueueStart(queue, nullptr);
      disposal.ready.set_value();
    }
  }
  static void BufferBack(void* self, AudioQueueRef queue, AudioQueueBufferRef) {
    Called(self, queue, DisposedBy::BufferCallback);
  }
  static void RunningChanged(void* self, AudioQueueRef queue, AudioQueuePropertyID) {
    Called(self, queue, DisposedBy::RunningListener);
  }
};

// The player disposes with its mutex held while a buffer callback waits for it, or from inside the
// queue's own callbacks: dispose returns at once and no callback starts afterwards.
TEST(OutputQueueLifecycle, DisposeNeverWaitsForACallbackAndNoCallbackFollowsIt) {
  for (const DisposedBy by : {DisposedBy::CallerHoldingTheCallbacksLock, DisposedBy::BufferCallback,
                              DisposedBy::RunningListener}) {
    SCOPED_TRACE(int(by));
    Disposal disposal;
    disposal.by = by;
    ASSERT_EQ(AudioOutputSelect("null", 20), noErr);
    AudioQueueRef queue = nullptr;
    ASSERT_EQ(AudioQueueNewOutput(&kPcm, Disposal::BufferBack, &disposal, nullptr, nullptr, 0, &queue), noErr);
    ASSERT_EQ(noErr, AudioQueueAddPropertyListener(queue, kAudioQueueProperty_IsRunning, Disposal::RunningChanged,
                                                   &disposal));
    for (int i = 0; i < 3; ++i) {
      AudioQueueBufferRef buffer = nullptr;
      ASSERT_EQ(AudioQueueAllocateBuffer(queue, 320, &buffer), noErr);
      buffer->mAudioDataByteSize = 320;
      ASSERT_EQ(AudioQueueEnqueueBuffer(queue, buffer, 0, nullptr), noErr);
    }
    std::unique_lock<std::mutex> held(disposal.mutex);
    ASSERT_EQ(AudioQueueStart(queue, nullptr), noErr);
    ASSERT_EQ(disposal.ready.get_future().wait_for(kDeadline), std::future_status::ready);
    if (by == DisposedBy::CallerHoldingTheCallbacksLock) {
      auto disposed = std::async(std::launch::async, [&] { return AudioQueueDispose(queue, true); });
      const bool returned = disposed.wait_for(kDeadline) == std::future_status::ready;
      held.unlock();  // whatever happened, let the callback finish
      ASSERT_TRUE(returned) << "AudioQueueDispose waited for the callback";
      EXPECT_EQ(disposed.get(), noErr);
    } else {
      EXPECT_EQ(disposal.startAfterwards, kAudioQueueErr_InvalidQueue);
      held.unlock();
    }
    ASSERT_TRUE(AudioQueueWaitForReleases(std::chrono::duration<double>(kDeadline).count()));
    // The start's running-state change comes before the first buffer.
    EXPECT_EQ(disposal.callbacks.load(), by == DisposedBy::RunningListener ? 1 : 2) << "a callback after disposal";
  }
}

// Refused in the background too: the end-to-end background test shows the player relying on it.
TEST(OutputQueueLifecycle, StartIsRefusedWhileTheSessionIsInterrupted) {
  TestQueue queue(kPcm);
  AudioSession::sharedInstance().beginInterruption();
  EXPECT_EQ(AudioQueueStart(queue.handle(), nullptr), kAudioSessionErr_Interrupted);
  EXPECT_EQ(queue.isRunning(), 0u);
  AudioSession::sharedInstance().endInterruption();
  EXPECT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
  EXPECT_EQ(queue.isRunning(), 1u);
}

}  // namespace
}  // namespace output_queue_test
