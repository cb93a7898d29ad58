// Plan: the fake platform's behaviours that the player's tests rely on and that are easy to get
// wrong; plain recording is exercised by every player test and not repeated here.
// - The default parser: format reports once, before the first packets; the same packets whatever
//   the chunking, with a remainder carried over.
// - Chosen results: nth counts from the moment of choosing, refusals of the fake itself count, an
//   exception comes after the log line.
// - Queues: callbacks on the queue's own thread, oldest buffer first, playBack() returns after the
//   callback; a disposed queue refuses calls and never calls back; disposal does not wait for a
//   callback in progress and works from the callback itself; starts refused by the session and
//   the application; no time before the first start.
// - reset(): a new test never sees the previous test's handles or calls.
#include "fakes/FakePlatform.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Audio/Platform/Application.h"
#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/NotificationCenter.h"
#include "Audio/Platform/PlatformException.h"

namespace {

AudioStreamBasicDescription pcm16k() {
  return AudioStreamBasicDescription{
      16000.0, kAudioFormatLinearPCM, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked, 2, 1, 2, 1, 16, 0};
}

// What a parser delivered; the callbacks run on the thread that parses.
struct ParsedStream {
  std::vector<std::string> events;
  std::vector<std::vector<uint8_t>> packets;

  static void property(void* self, AudioFileStreamID, AudioFileStreamPropertyID id, uint32_t*) {
    static_cast<ParsedStream*>(self)->events.push_back(id == kAudioFileStreamProperty_DataFormat ? "dfmt"
                                                       : id == kAudioFileStreamProperty_ReadyToProducePackets
                                                           ? "redy"
                                                           : "other");
  }
  static void packetsFound(void* self, uint32_t, uint32_t count, const void* data,
                           AudioStreamPacketDescription* descriptions) {
    auto* stream = static_cast<ParsedStream*>(self);
    stream->events.push_back("packets");
    for (uint32_t i = 0; i < count; ++i) {
      const auto* start = static_cast<const uint8_t*>(data) + descriptions[i].mStartOffset;
      stream->packets.emplace_back(start, start + descriptions[i].mDataByteSize);
    }
  }
};

// What a queue called back, and on which thread; callbacks of one queue never overlap.
struct QueueCallbacks {
  std::vector<AudioQueueBufferRef> returned;
  std::vector<std::thread::id> threads;
  std::function<void(AudioQueueRef)> during;  // runs inside the output callback when set

  static void output(void* self, AudioQueueRef queue, AudioQueueBufferRef buffer) {
    auto* callbacks = static_cast<QueueCallbacks*>(self);
    callbacks->returned.push_back(buffer);
    callbacks->threads.push_back(std::this_thread::get_id());
    if (callbacks->during) callbacks->during(queue);
  }
};

AudioQueueRef newQueue(QueueCallbacks& callbacks) {
  const AudioStreamBasicDescription format = pcm16k();
  AudioQueueRef queue = nullptr;
  EXPECT_EQ(AudioQueueNewOutput(&format, QueueCallbacks::output, &callbacks, nullptr, nullptr, 0, &queue), noErr);
  return queue;
}

AudioQueueBufferRef enqueueBytes(AudioQueueRef queue, uint32_t bytes) {
  AudioQueueBufferRef buffer = nullptr;
  EXPECT_EQ(AudioQueueAllocateBuffer(queue, 5120, &buffer), noErr);
  buffer->mAudioDataByteSize = bytes;
  EXPECT_EQ(AudioQueueEnqueueBuffer(queue, buffer, 0, nullptr), noErr);
  return buffer;
}

class FakePlatformTest : public testing::Test {
 protected:
  void SetUp() override { fake::reset(); }
};

TEST_F(FakePlatformTest, DefaultParserReportsTheFormatOnceAndGivesTheSamePacketsWhateverTheChunking) {
  std::vector<uint8_t> stream(1000);
  for (size_t i = 0; i < stream.size(); ++i) stream[i] = uint8_t(i * 7);
  for (const size_t chunk : {size_t(1000), size_t(418), size_t(419), size_t(97), size_t(1)}) {
    SCOPED_TRACE("chunks of " + std::to_string(chunk));
    ParsedStream parsed;
    AudioFileStreamID parser = nullptr;
    ASSERT_EQ(AudioFileStreamOpen(&parsed, ParsedStream::property, ParsedStream::packetsFound, 0, &parser), noErr);
    for (size_t at = 0; at < stream.size(); at += chunk) {
      const size_t size = std::min(chunk, stream.size() - at);
      ASSERT_EQ(AudioFileStreamParseBytes(parser, uint32_t(size), stream.data() + at, 0), noErr);
    }
    ASSERT_GE(parsed.events.size(), 3u);
    EXPECT_EQ(parsed.events[0], "dfmt");
    EXPECT_EQ(parsed.events[1], "redy");
    EXPECT_EQ(std::count(parsed.events.begin(), parsed.events.end(), "redy"), 1);
    // Two whole packets of 418 bytes; the last 164 bytes wait for more.
    ASSERT_EQ(parsed.packets.size(), 2u);
    EXPECT_EQ(parsed.packets[0], std::vector<uint8_t>(stream.begin(), stream.begin() + 418));
    EXPECT_EQ(parsed.packets[1], std::vector<uint8_t>(stream.begin() + 418, stream.begin() + 836));
    EXPECT_EQ(AudioFileStreamClose(parser), noErr);
  }
}

TEST_F(FakePlatformTest, ChosenResultsCountCallsFromTheMomentOfChoosing) {
  QueueCallbacks callbacks;
  AudioQueueRef queue = newQueue(callbacks);
  EXPECT_EQ(AudioQueueStart(queue, nullptr), noErr);
  fake::failCall("AudioQueueStart", kAudioSessionErr_Interrupted, 2);
  fake::failCallsFrom("AudioQueuePause", kAudioQueueErr_DeviceFailed, 1);

  EXPECT_EQ(AudioQueueStart(queue, nullptr), noErr);
  EXPECT_EQ(AudioQueueStart(queue, nullptr), kAudioSessionErr_Interrupted);
  EXPECT_EQ(AudioQueueStart(queue, nullptr), noErr);
  EXPECT_EQ(AudioQueuePause(queue), kAudioQueueErr_DeviceFailed);
  EXPECT_EQ(AudioQueuePause(queue), kAudioQueueErr_DeviceFailed);
  EXPECT_FALSE(fake::lastQueue().state().paused) << "a refused call has no effect";
  EXPECT_EQ(fake::calls("AudioQueueStart"),
            (std::vector<std::string>{"AudioQueueStart q=1", "AudioQueueStart q=1", "AudioQueueStart q=1 -> !int",
                                      "AudioQueueStart q=1"}));
}

TEST_F(FakePlatformTest, RefusalsOfTheFakeCountAndKeepTheirOwnStatus) {
  fake::failCall("AudioQueueStart", kAudioQueueErr_DeviceFailed, 2);
  QueueCallbacks callbacks;
  AudioQueueRef queue = newQueue(callbacks);
  Application::sharedApplication().setInBackground(true);
  EXPECT_EQ(AudioQueueStart(queue, nullptr), kAudioSessionErr_InBackground);
  Application::sharedApplication().setInBackground(false);
  EXPECT_EQ(AudioQueueStart(queue, nullptr), kAudioQueueErr_DeviceFailed);
  EXPECT_EQ(AudioQueueStart(queue, nullptr), noErr);
}

TEST_F(FakePlatformTest, ChosenExceptionIsRaisedAfterTheLogLine) {
  fake::raiseOnCall("setActive", PlatformException("busy"));
  fake::raiseOnCall("setCategory", std::runtime_error("bug"));
  EXPECT_THROW(AudioSession::sharedInstance().setActive(true, 1), PlatformException);
  EXPECT_THROW(AudioSession::sharedInstance().setCategory("c", 0), std::runtime_error);
  EXPECT_TRUE(AudioSession::sharedInstance().setActive(true, 1));
  EXPECT_EQ(fake::calls(), (std::vector<std::string>{"setActive 1 options=1 -> raises",
                                                     "setCategory c options=0 -> raises", "setActive 1 options=1"}));
}

TEST_F(FakePlatformTest, PlayBackCallsBackOldestFirstOnTheQueuesThreadAndReturnsAfterTheCallback) {
  QueueCallbacks callbacks;
  AudioQueueRef queue = newQueue(callbacks);
  const AudioQueueBufferRef first = enqueueBytes(queue, 100);
  const AudioQueueBufferRef second = enqueueBytes(queue, 200);

  ASSERT_TRUE(fake::lastQueue().playBack());
  ASSERT_TRUE(fake::lastQueue().playBack());
  EXPECT_EQ(callbacks.returned, (std::vector<AudioQueueBufferRef>{first, second}));
  EXPECT_NE(callbacks.threads[0], std::this_thread::get_id());
  EXPECT_EQ(callbacks.threads[0], callbacks.threads[1]);
  EXPECT_EQ(fake::lastQueue().state().waitingBuffers(), 0u);
  // A returned buffer may be enqueued again.
  EXPECT_EQ(AudioQueueEnqueueBuffer(queue, first, 0, nullptr), noErr);
  EXPECT_EQ(AudioQueueEnqueueBuffer(queue, first, 0, nullptr), kAudioQueueErr_BufferInQueue);
}

TEST_F(FakePlatformTest, DisposedQueueRefusesEveryCallAndNeverCallsBack) {
  QueueCallbacks callbacks;
  AudioQueueRef queue = newQueue(callbacks);
  enqueueBytes(queue, 100);
  EXPECT_EQ(AudioQueueDispose(queue, true), noErr);

  AudioTimeStamp time{};
  EXPECT_EQ(AudioQueueStart(queue, nullptr), kAudioQueueErr_InvalidQueue);
  EXPECT_EQ(AudioQueueGetCurrentTime(queue, nullptr, &time, nullptr), kAudioQueueErr_InvalidQueue);
  EXPECT_EQ(AudioQueueDispose(queue, true), kAudioQueueErr_InvalidQueue);
  EXPECT_NONFATAL_FAILURE(EXPECT_FALSE(fake::lastQueue().playBack()), "disposed");
  EXPECT_TRUE(callbacks.returned.empty());
}

// Owned by its callback, which keeps only its own copies while it is held, so that the test may end
// while the callback is still returning.
struct HeldCallback {
  std::promise<void> entered;
  std::shared_future<void> released;

  static void output(void* self, AudioQueueRef, AudioQueueBufferRef) {
    auto* held = static_cast<HeldCallback*>(self);
    std::promise<void> entered = std::move(held->entered);
    const std::shared_future<void> released = held->released;
    delete held;
    entered.set_value();
    released.wait();
  }
};

TEST_F(FakePlatformTest, DisposalDoesNotWaitForACallbackInProgress) {
  std::promise<void> release;
  auto* held = new HeldCallback{{}, release.get_future().share()};
  std::future<void> entered = held->entered.get_future();
  const AudioStreamBasicDescription format = pcm16k();
  AudioQueueRef queue = nullptr;
  ASSERT_EQ(AudioQueueNewOutput(&format, HeldCallback::output, held, nullptr, nullptr, 0, &queue), noErr);
  enqueueBytes(queue, 100);
  ASSERT_TRUE(fake::lastQueue().playBackWithoutWaiting());
  entered.wait();
  EXPECT_EQ(AudioQueueDispose(queue, true), noErr);  // returns while the callback is held
  release.set_value();
}

TEST_F(FakePlatformTest, QueueMayBeDisposedOfFromItsOwnCallback) {
  QueueCallbacks callbacks;
  AudioQueueRef queue = newQueue(callbacks);
  enqueueBytes(queue, 100);
  OSStatus disposal = -1;  // written on the callback thread before playBack() returns
  callbacks.during = [&](AudioQueueRef self) { disposal = AudioQueueDispose(self, true); };
  ASSERT_TRUE(fake::lastQueue().playBack());
  EXPECT_EQ(disposal, noErr);
  EXPECT_TRUE(fake::lastQueue().state().disposed);
}

TEST_F(FakePlatformTest, CurrentTimeFailsBeforeTheFirstStartAndThenReportsTheSampleTime) {
  QueueCallbacks callbacks;
  AudioQueueRef queue = newQueue(callbacks);
  fake::lastQueue().setSampleTime(8000);
  AudioTimeStamp time{};
  EXPECT_EQ(AudioQueueGetCurrentTime(queue, nullptr, &time, nullptr), kAudioQueueErr_NotStarted);
  ASSERT_EQ(AudioQueueStart(queue, nullptr), noErr);
  ASSERT_EQ(AudioQueuePause(queue), noErr);
  ASSERT_EQ(AudioQueueGetCurrentTime(queue, nullptr, &time, nullptr), noErr);
  EXPECT_EQ(time.mSampleTime, 8000);
}

TEST_F(FakePlatformTest, InterruptionHelperReturnsAfterEveryHandlerAndStartsAreRefusedMeanwhile) {
  QueueCallbacks callbacks;
  AudioQueueRef queue = newQueue(callbacks);
  const auto observer = std::make_shared<int>();
  std::vector<int64_t> types;  // written by the session's thread before the helper returns
  NotificationCenter::defaultCenter().addObserver(
      observer,
      [&](const Notification& n) {
        types.push_back(n.userInfo ? n.userInfo->at(AVAudioSessionInterruptionTypeKey) : -1);
      },
      AVAudioSessionInterruptionNotification);

  ASSERT_TRUE(fake::beginInterruption());
  EXPECT_EQ(AudioQueueStart(queue, nullptr), kAudioSessionErr_Interrupted);
  ASSERT_TRUE(fake::endInterruption());
  EXPECT_EQ(AudioQueueStart(queue, nullptr), noErr);
  ASSERT_TRUE(fake::postInterruption(std::nullopt));
  EXPECT_EQ(types, (std::vector<int64_t>{1, 0, -1}));
  NotificationCenter::defaultCenter().removeObserver(observer.get(), AVAudioSessionInterruptionNotification);
}

TEST_F(FakePlatformTest, ResetForgetsThePreviousTestsHandlesAndNeverReusesThem) {
  QueueCallbacks callbacks;
  AudioQueueRef old = newQueue(callbacks);
  fake::reset();
  EXPECT_EQ(AudioQueueStart(old, nullptr), kAudioQueueErr_InvalidQueue);
  EXPECT_TRUE(fake::calls().empty());
  AudioQueueRef fresh = newQueue(callbacks);
  EXPECT_NE(fresh, old);
  EXPECT_EQ(fake::calls(), (std::vector<std::string>{"AudioQueueNewOutput rate=16000 fmt=lpcm q=1"}));
}

}  // namespace
