// Plan: the life of a queue and of its handles.
// - Bad arguments and bad states give the documented status, and a disposed queue fails every call.
// - Handles (queues and buffers) are never handed out twice, also across the arena's regions.
// - Dispose returns at once while a callback waits for a lock the disposing thread holds (the
//   player disposes with its mutex held), and works from inside the queue's own callbacks; no
//   callback starts afterwards and the queue's thread ends.
// - Start is refused while the audio session is interrupted or the application is in the
//   background, through the real session and application objects.
// Not here: what is heard (OutputQueuePlayback_test.cpp).
#include <cmath>
#include <algorithm>
#include <future>
#include <set>

#include "Audio/Platform/Application.h"
#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/OutputQueue/BufferHandleArena.h"
#include "platform/OutputQueueTestSupport.h"

namespace output_queue_test {
namespace {

const AudioStreamBasicDescription kPcm = PcmFormat(16000);

void IgnoreBuffer(void*, AudioQueueRef, AudioQueueBufferRef) {}
void IgnoreRunning(void*, AudioQueueRef, AudioQueuePropertyID) {}

// A queue on the null output at 20 times real time with three buffers of 10 ms enqueued.
AudioQueueRef FedNullQueue(AudioQueueOutputCallback callback, void* userData) {
  EXPECT_EQ(AudioOutputSelect("null", 20), noErr);
  AudioQueueRef queue = nullptr;
  EXPECT_EQ(AudioQueueNewOutput(&kPcm, callback, userData, nullptr, nullptr, 0, &queue), noErr);
  for (int i = 0; i < 3; ++i) {
    AudioQueueBufferRef buffer = nullptr;
    EXPECT_EQ(AudioQueueAllocateBuffer(queue, 320, &buffer), noErr);
    buffer->mAudioDataByteSize = 320;
    EXPECT_EQ(AudioQueueEnqueueBuffer(queue, buffer, 0, nullptr), noErr);
  }
  return queue;
}

TEST(OutputQueueLifecycle, UnsupportedFormatsAndBadArgumentsAreRefusedAtCreation) {
  ASSERT_EQ(AudioOutputSelect("manual"), noErr);
  const auto withFormat = [](auto change) {
    AudioStreamBasicDescription format = kPcm;
    change(format);
    return format;
  };
  const std::vector<AudioStreamBasicDescription> unsupported = {
      withFormat([](auto& f) { f.mFormatID = FourCC("aac "); }),
      withFormat([](auto& f) { f.mBitsPerChannel = 8; }),
      withFormat([](auto& f) { f.mFormatFlags |= kAudioFormatFlagIsBigEndian; }),
      withFormat([](auto& f) { f.mFormatFlags = kAudioFormatFlagIsFloat; }),
      withFormat([](auto& f) { f.mChannelsPerFrame = 3; }),
      withFormat([](auto& f) { f.mBytesPerFrame = 4; }),
      withFormat([](auto& f) { f.mSampleRate = 0; }),
      withFormat([](auto& f) { f.mSampleRate = 16000.5; }),
      withFormat([](auto& f) { f.mSampleRate = std::nan(""); }),
      Mp3Format(17000, 1),
      Mp3Format(16000, 0),
  };
  for (const AudioStreamBasicDescription& format : unsupported) {
    AudioQueueRef queue = nullptr;
    EXPECT_EQ(AudioQueueNewOutput(&format, IgnoreBuffer, nullptr, nullptr, nullptr, 0, &queue),
              kAudioQueueErr_UnsupportedFormat);
  }
  AudioQueueRef queue = nullptr;
  int runLoop = 0;
  EXPECT_EQ(AudioQueueNewOutput(nullptr, IgnoreBuffer, nullptr, nullptr, nullptr, 0, &queue), kAudioQueueErr_InvalidParameter);
  EXPECT_EQ(AudioQueueNewOutput(&kPcm, nullptr, nullptr, nullptr, nullptr, 0, &queue), kAudioQueueErr_InvalidParameter);
  EXPECT_EQ(AudioQueueNewOutput(&kPcm, IgnoreBuffer, nullptr, &runLoop, nullptr, 0, &queue), kAudioQueueErr_InvalidParameter);
  EXPECT_EQ(AudioQueueNewOutput(&kPcm, IgnoreBuffer, nullptr, nullptr, nullptr, 1, &queue), kAudioQueueErr_InvalidParameter);
  EXPECT_EQ(AudioQueueNewOutput(&kPcm, IgnoreBuffer, nullptr, nullptr, nullptr, 0, nullptr), kAudioQueueErr_InvalidParameter);
}

TEST(OutputQueueLifecycle, BadCallsOnALiveQueueGiveTheirStatus) {
  TestQueue pcm(kPcm);
  TestQueue mp3(Mp3Format(16000, 1));
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
  const AudioStreamPacketDescription emptyPacket{10, 0, 0};
  const AudioStreamPacketDescription negative{-1, 0, 10};
  const AudioTimeStamp when{};
  AudioTimeStamp time{};
  uint32_t value = 0;
  uint32_t smallSize = 2;
  bool discontinuity = false;
  int timeline = 0;

  struct Case {
    const char* call;
    OSStatus status;
    OSStatus expected;
  };
  const std::vector<Case> cases = {
      {"allocate 0 bytes", AudioQueueAllocateBuffer(pcm.handle(), 0, &empty), kAudioQueueErr_InvalidParameter},
      {"allocate 64 MiB", AudioQueueAllocateBuffer(pcm.handle(), 64u << 20, &empty), kAudioQueueErr_InvalidParameter},
      {"allocate into null", AudioQueueAllocateBuffer(pcm.handle(), 10, nullptr), kAudioQueueErr_InvalidParameter},
      {"time before the first start", AudioQueueGetCurrentTime(pcm.handle(), nullptr, &time, nullptr), kAudioQueueErr_NotStarted},
      {"time on a timeline", AudioQueueGetCurrentTime(pcm.handle(), &timeline, &time, nullptr), kAudioQueueErr_InvalidParameter},
      {"time with discontinuity", AudioQueueGetCurrentTime(pcm.handle(), nullptr, &time, &discontinuity), kAudioQueueErr_InvalidParameter},
      {"start at a time", AudioQueueStart(pcm.handle(), &when), kAudioQueueErr_InvalidParameter},
      {"enqueue another queue's buffer", AudioQueueEnqueueBuffer(pcm.handle(), mp3Buffer, 0, nullptr), kAudioQueueErr_InvalidBuffer},
      {"enqueue a made-up buffer", AudioQueueEnqueueBuffer(pcm.handle(), reinterpret_cast<AudioQueueBufferRef>(&time), 0, nullptr), kAudioQueueErr_InvalidBuffer},
      {"enqueue an empty buffer", AudioQueueEnqueueBuffer(pcm.handle(), empty, 0, nullptr), kAudioQueueErr_BufferEmpty},
      {"enqueue PCM with packets", AudioQueueEnqueueBuffer(pcm.handle(), buffer, 1, &whole), kAudioQueueErr_InvalidParameter},
      {"enqueue PCM", AudioQueueEnqueueBuffer(pcm.handle(), buffer, 0, nullptr), noErr},
      {"enqueue it again", AudioQueueEnqueueBuffer(pcm.handle(), buffer, 0, nullptr), kAudioQueueErr_BufferInQueue},
      {"enqueue MP3 without packets", AudioQueueEnqueueBuffer(mp3.handle(), mp3Buffer, 0, nullptr), kAudioQueueErr_InvalidParameter},
      {"enqueue MP3 with null packets", AudioQueueEnqueueBuffer(mp3.handle(), mp3Buffer, 1, nullptr), kAudioQueueErr_InvalidParameter},
      {"packet past the end", AudioQueueEnqueueBuffer(mp3.handle(), mp3Buffer, 1, &pastTheEnd), kAudioQueueErr_InvalidParameter},
      {"empty packet", AudioQueueEnqueueBuffer(mp3.handle(), mp3Buffer, 1, &emptyPacket), kAudioQueueErr_InvalidParameter},
      {"negative offset", AudioQueueEnqueueBuffer(mp3.handle(), mp3Buffer, 1, &negative), kAudioQueueErr_InvalidParameter},
      {"unknown property", AudioQueueGetProperty(pcm.handle(), FourCC("xxxx"), &value, &smallSize), kAudioQueueErr_InvalidProperty},
      {"property too small", AudioQueueGetProperty(pcm.handle(), kAudioQueueProperty_IsRunning, &value, &smallSize), kAudioQueueErr_InvalidProperty},
      {"listen to another property", AudioQueueAddPropertyListener(pcm.handle(), FourCC("xxxx"), IgnoreRunning, nullptr), kAudioQueueErr_InvalidProperty},
      {"listen with null", AudioQueueAddPropertyListener(pcm.handle(), kAudioQueueProperty_IsRunning, nullptr, nullptr), kAudioQueueErr_InvalidParameter},
      {"volume below 0", AudioQueueSetParameter(pcm.handle(), kAudioQueueParam_Volume, -0.1f), kAudioQueueErr_InvalidParameter},
      {"volume above 1", AudioQueueSetParameter(pcm.handle(), kAudioQueueParam_Volume, 1.5f), kAudioQueueErr_InvalidParameter},
      {"volume NaN", AudioQueueSetParameter(pcm.handle(), kAudioQueueParam_Volume, std::nanf("")), kAudioQueueErr_InvalidParameter},
      {"unknown parameter", AudioQueueSetParameter(pcm.handle(), 7, 0.5f), kAudioQueueErr_InvalidParameter},
      {"counters into null", AudioQueueGetCounters(pcm.handle(), nullptr), kAudioQueueErr_InvalidParameter},
  };
  for (const Case& test : cases) {
    EXPECT_EQ(test.status, test.expected) << test.call;
  }
  TestQueue null(kPcm, "null");
  EXPECT_EQ(AudioOutputManualAdvance(null.handle(), 10, nullptr), kAudioQueueErr_InvalidParameter)
      << "manual clock of a null output";
}

TEST(OutputQueueLifecycle, EveryCallOnADisposedQueueFails) {
  ASSERT_EQ(AudioOutputSelect("manual"), noErr);
  AudioQueueRef queue = nullptr;
  ASSERT_EQ(AudioQueueNewOutput(&kPcm, IgnoreBuffer, nullptr, nullptr, nullptr, 0, &queue), noErr);
  AudioQueueBufferRef buffer = nullptr;
  ASSERT_EQ(AudioQueueAllocateBuffer(queue, 64, &buffer), noErr);
  ASSERT_EQ(AudioQueueStart(queue, nullptr), noErr);
  ASSERT_EQ(AudioQueueDispose(queue, true), noErr);

  AudioTimeStamp time{};
  uint32_t value = 0;
  uint32_t size = sizeof value;
  AudioQueueCounters counters;
  const std::vector<std::pair<const char*, OSStatus>> calls = {
      {"AllocateBuffer", AudioQueueAllocateBuffer(queue, 64, &buffer)},
      {"EnqueueBuffer", AudioQueueEnqueueBuffer(queue, buffer, 0, nullptr)},
      {"Start", AudioQueueStart(queue, nullptr)},
      {"Pause", AudioQueuePause(queue)},
      {"Stop(false)", AudioQueueStop(queue, false)},
      {"Stop(true)", AudioQueueStop(queue, true)},
      {"GetCurrentTime", AudioQueueGetCurrentTime(queue, nullptr, &time, nullptr)},
      {"GetProperty", AudioQueueGetProperty(queue, kAudioQueueProperty_IsRunning, &value, &size)},
      {"AddPropertyListener", AudioQueueAddPropertyListener(queue, kAudioQueueProperty_IsRunning, IgnoreRunning, nullptr)},
      {"SetParameter", AudioQueueSetParameter(queue, kAudioQueueParam_Volume, 0.5f)},
      {"ManualAdvance", AudioOutputManualAdvance(queue, 10, nullptr)},
      {"GetCounters", AudioQueueGetCounters(queue, &counters)},
      {"Dispose", AudioQueueDispose(queue, true)},
      {"a handle never given", AudioQueueStart(reinterpret_cast<AudioQueueRef>(uintptr_t(1) << 60), nullptr)},
  };
  for (const auto& [call, status] : calls) {
    EXPECT_EQ(status, kAudioQueueErr_InvalidQueue) << call;
  }
  EXPECT_TRUE(AudioQueueWaitForReleases(20));
}

TEST(OutputQueueLifecycle, HandlesAreNeverHandedOutTwice) {
  ASSERT_EQ(AudioOutputSelect("manual"), noErr);
  std::set<AudioQueueRef> queues;
  std::set<AudioQueueBufferRef> buffers;
  for (int i = 0; i < 50; ++i) {
    AudioQueueRef queue = nullptr;
    ASSERT_EQ(AudioQueueNewOutput(&kPcm, IgnoreBuffer, nullptr, nullptr, nullptr, 0, &queue), noErr);
    EXPECT_TRUE(queues.insert(queue).second);
    for (int j = 0; j < 20; ++j) {
      AudioQueueBufferRef buffer = nullptr;
      ASSERT_EQ(AudioQueueAllocateBuffer(queue, 5120, &buffer), noErr);
      EXPECT_TRUE(buffers.insert(buffer).second);
    }
    ASSERT_EQ(AudioQueueDispose(queue, true), noErr);
    ASSERT_TRUE(AudioQueueWaitForReleases(20));  // its memory is free for the next queue to reuse
  }
}

TEST(OutputQueueLifecycle, BufferRecordAddressesStayUniqueAcrossArenaRegions) {
  // Enough slots to go through more than one 16 MiB region, half of them released on the way.
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

// The player's situation: it disposes with its mutex held while the queue's callback waits for it.
TEST(OutputQueueLifecycle, DisposeReturnsWhileACallbackWaitsForTheCallersLock) {
  struct Player {
    std::mutex mutex;  // the player's status mutex
    std::promise<void> callbackEntered;
    std::atomic<int> callbacks{0};
  } player;
  const auto callback = [](void* self, AudioQueueRef, AudioQueueBufferRef) {
    auto& player = *static_cast<Player*>(self);
    if (player.callbacks.fetch_add(1) == 0) {
      player.callbackEntered.set_value();
    }
    std::lock_guard<std::mutex> lock(player.mutex);
  };
  const AudioQueueRef queue = FedNullQueue(callback, &player);

  std::unique_lock<std::mutex> held(player.mutex);
  ASSERT_EQ(AudioQueueStart(queue, nullptr), noErr);
  ASSERT_EQ(player.callbackEntered.get_future().wait_for(kDeadline), std::future_status::ready);
  auto disposed = std::async(std::launch::async, [&] { return AudioQueueDispose(queue, true); });
  const bool returned = disposed.wait_for(kDeadline) == std::future_status::ready;
  held.unlock();  // whatever happened, let the callback finish
  ASSERT_TRUE(returned) << "AudioQueueDispose waited for the callback";
  EXPECT_EQ(disposed.get(), noErr);
  EXPECT_TRUE(AudioQueueWaitForReleases(20));
  EXPECT_EQ(player.callbacks.load(), 1) << "a callback started after AudioQueueDispose";
}

struct DisposedFromCallback {
  bool fromListener = false;
  std::atomic<int> buffersBack{0};
  std::atomic<int> runningChanges{0};
  OSStatus disposal = 1;
  OSStatus callAfterwards = 1;
  std::promise<void> done;

  void disposeHere(AudioQueueRef queue) {
    disposal = AudioQueueDispose(queue, true);
    callAfterwards = AudioQueueStart(queue, nullptr);
    done.set_value();
  }
  static void BufferBack(void* self, AudioQueueRef queue, AudioQueueBufferRef) {
    auto& observed = *static_cast<DisposedFromCallback*>(self);
    if (observed.buffersBack.fetch_add(1) == 0 && !observed.fromListener) {
      observed.disposeHere(queue);
    }
  }
  static void RunningChanged(void* self, AudioQueueRef queue, AudioQueuePropertyID) {
    auto& observed = *static_cast<DisposedFromCallback*>(self);
    if (observed.runningChanges.fetch_add(1) == 0 && observed.fromListener) {
      observed.disposeHere(queue);
    }
  }
};

TEST(OutputQueueLifecycle, AQueueCanBeDisposedFromItsOwnCallbacks) {
  for (const bool fromListener : {false, true}) {
    SCOPED_TRACE(fromListener ? "from the running-state listener" : "from the buffer callback");
    DisposedFromCallback observed;
    observed.fromListener = fromListener;
    const AudioQueueRef queue = FedNullQueue(DisposedFromCallback::BufferBack, &observed);
    ASSERT_EQ(AudioQueueAddPropertyListener(queue, kAudioQueueProperty_IsRunning, DisposedFromCallback::RunningChanged,
                                            &observed),
              noErr);
    ASSERT_EQ(AudioQueueStart(queue, nullptr), noErr);
    ASSERT_EQ(observed.done.get_future().wait_for(kDeadline), std::future_status::ready);
    ASSERT_TRUE(AudioQueueWaitForReleases(20));
    EXPECT_EQ(observed.disposal, noErr);
    EXPECT_EQ(observed.callAfterwards, kAudioQueueErr_InvalidQueue);
    EXPECT_EQ(AudioQueueStop(queue, true), kAudioQueueErr_InvalidQueue);
    EXPECT_EQ(observed.buffersBack.load() + observed.runningChanges.load(), fromListener ? 1 : 2)
        << "no callback after the one that disposed";
  }
}

TEST(OutputQueueLifecycle, StartIsRefusedWhileInterruptedOrInBackground) {
  struct Case {
    bool interrupted;
    bool background;
    OSStatus expected;
  };
  const std::vector<Case> cases = {
      {true, false, kAudioSessionErr_Interrupted},
      {false, true, kAudioSessionErr_InBackground},
      {true, true, kAudioSessionErr_Interrupted},
      {false, false, noErr},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(::testing::Message() << "interrupted " << test.interrupted << ", background " << test.background);
    TestQueue queue(kPcm);
    if (test.interrupted) {
      AudioSession::sharedInstance().beginInterruption();
    }
    Application::sharedApplication().setInBackground(test.background);
    EXPECT_EQ(AudioQueueStart(queue.handle(), nullptr), test.expected);
    EXPECT_EQ(queue.isRunning(), test.expected == noErr ? 1u : 0u);
    AudioTimeStamp time{};
    EXPECT_EQ(AudioQueueGetCurrentTime(queue.handle(), nullptr, &time, nullptr),
              test.expected == noErr ? noErr : kAudioQueueErr_NotStarted);

    if (test.interrupted) {
      AudioSession::sharedInstance().endInterruption();
    }
    Application::sharedApplication().setInBackground(false);
    EXPECT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
    EXPECT_EQ(queue.isRunning(), 1u);
  }
}

}  // namespace
}  // namespace output_queue_test
