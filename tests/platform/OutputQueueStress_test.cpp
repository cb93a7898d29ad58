// Plan: queues created, fed, paused, resumed, stopped and disposed from several threads at once,
// in seeded random order, with callbacks that enqueue again and dispose their own queue, on the
// null output at high speed and on a manual clock moved by a thread of its own. Meant for the
// ThreadSanitizer build: any data race fails the run there. Everywhere it checks that every call
// answers with a documented status and that every queue is released in the end (no hang, no
// thread or memory left behind).
// Not here: what is heard (the other OutputQueue tests).
#include <atomic>
#include <random>
#include <set>
#include <thread>

#include "platform/OutputQueueTestSupport.h"

namespace output_queue_test {
namespace {

constexpr int kThreads = 4;
constexpr int kQueuesPerThread = 12;
constexpr int kOperationsPerQueue = 40;

// What the callbacks of one queue share with the test. Outlives the queue's callbacks: it is kept
// until every queue has been released.
struct QueueContext {
  AudioQueueRef queue = nullptr;  // the test's threads only
  std::atomic<bool> refill{true};
  std::atomic<bool> disposeFromCallback{false};
  std::atomic<int> callbacks{0};
  std::atomic<OSStatus> unexpected{noErr};

  void check(OSStatus status, std::initializer_list<OSStatus> allowed) {
    if (std::find(allowed.begin(), allowed.end(), status) == allowed.end()) {
      unexpected = status;
    }
  }
  static void BufferBack(void* self, AudioQueueRef queue, AudioQueueBufferRef buffer) {
    auto& context = *static_cast<QueueContext*>(self);
    context.callbacks.fetch_add(1);
    if (context.disposeFromCallback.exchange(false)) {
      context.check(AudioQueueDispose(queue, true), {noErr, kAudioQueueErr_InvalidQueue});
    } else if (context.refill) {
      // The test's thread may have enqueued it again already: it enqueues buffers it does not own.
      context.check(AudioQueueEnqueueBuffer(queue, buffer, 0, nullptr),
                    {noErr, kAudioQueueErr_InvalidQueue, kAudioQueueErr_BufferInQueue});
    }
  }
  static void RunningChanged(void* self, AudioQueueRef queue, AudioQueuePropertyID id) {
    auto& context = *static_cast<QueueContext*>(self);
    uint32_t running = 0;
    uint32_t size = sizeof running;
    context.check(AudioQueueGetProperty(queue, id, &running, &size), {noErr, kAudioQueueErr_InvalidQueue});
  }
};

void Exercise(AudioQueueRef queue, QueueContext& context, std::mt19937& random) {
  std::vector<AudioQueueBufferRef> buffers(4);
  for (AudioQueueBufferRef& buffer : buffers) {
    context.check(AudioQueueAllocateBuffer(queue, 641, &buffer), {noErr});
    buffer->mAudioDataByteSize = 1 + random() % 641;  // odd lengths too
    std::memset(buffer->mAudioData, int(random()), buffer->mAudioDataBytesCapacity);
    context.check(AudioQueueEnqueueBuffer(queue, buffer, 0, nullptr), {noErr});
  }
  for (int operation = 0; operation < kOperationsPerQueue; ++operation) {
    AudioTimeStamp time{};
    AudioQueueCounters counters;
    uint32_t running = 0;
    uint32_t size = sizeof running;
    switch (random() % 9) {
      case 0:
      case 1:
        context.check(AudioQueueStart(queue, nullptr), {noErr});
        break;
      case 2:
        context.check(AudioQueuePause(queue), {noErr});
        break;
      case 3:
        context.check(AudioQueueStop(queue, random() % 2 == 0), {noErr});
        break;
      case 4:
        context.check(AudioQueueSetParameter(queue, kAudioQueueParam_Volume, float(random() % 11) / 10), {noErr});
        break;
      case 5:
        context.check(AudioQueueGetCurrentTime(queue, nullptr, &time, nullptr), {noErr, kAudioQueueErr_NotStarted});
        break;
      case 6:
        context.check(AudioQueueGetProperty(queue, kAudioQueueProperty_IsRunning, &running, &size), {noErr});
        context.check(AudioQueueGetCounters(queue, &counters), {noErr});
        break;
      case 7:  // the callback may have enqueued it again already
        context.check(AudioQueueEnqueueBuffer(queue, buffers[random() % buffers.size()], 0, nullptr),
                      {noErr, kAudioQueueErr_BufferInQueue});
        break;
      default:
        std::this_thread::yield();
        break;
    }
  }
}

TEST(OutputQueueStress, ManyQueuesOnManyThreadsNeitherRaceNorHangNorLeak) {
  ASSERT_EQ(AudioOutputSelect("null", 50), noErr);
  std::vector<std::unique_ptr<QueueContext>> contexts(kThreads * kQueuesPerThread);
  for (auto& context : contexts) {
    context = std::make_unique<QueueContext>();
  }
  std::vector<std::thread> workers;
  for (int thread = 0; thread < kThreads; ++thread) {
    workers.emplace_back([&, thread] {
      std::mt19937 random(1000 + thread);
      const AudioStreamBasicDescription format = PcmFormat(16000, 1 + thread % 2);
      for (int i = 0; i < kQueuesPerThread; ++i) {
        QueueContext& context = *contexts[thread * kQueuesPerThread + i];
        context.check(AudioQueueNewOutput(&format, QueueContext::BufferBack, &context, nullptr, nullptr, 0,
                                          &context.queue),
                      {noErr});
        context.check(AudioQueueAddPropertyListener(context.queue, kAudioQueueProperty_IsRunning,
                                                    QueueContext::RunningChanged, &context),
                      {noErr});
        Exercise(context.queue, context, random);
        if (random() % 3 == 0) {
          context.disposeFromCallback = true;  // maybe by a callback already under way
          context.check(AudioQueueStart(context.queue, nullptr), {noErr, kAudioQueueErr_InvalidQueue});
        } else {
          context.refill = random() % 2 == 0;
          context.check(AudioQueueDispose(context.queue, true), {noErr});
        }
      }
    });
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
  // The queues meant to dispose themselves may have had no callback left to do it.
  for (auto& context : contexts) {
    context->check(AudioQueueDispose(context->queue, true), {noErr, kAudioQueueErr_InvalidQueue});
  }
  EXPECT_TRUE(AudioQueueWaitForReleases(std::chrono::duration<double>(kDeadline).count()));
  for (auto& context : contexts) {
    EXPECT_EQ(context->unexpected.load(), noErr);
  }
}

TEST(OutputQueueStress, AManualClockMovedByOneThreadWhileAnotherDrivesTheQueue) {
  QueueContext context;
  TestQueue queue(PcmFormat(8000), "manual");
  std::atomic<bool> done{false};
  std::thread clock([&] {
    while (!done) {
      context.check(AudioOutputManualAdvance(queue.handle(), 37, nullptr), {noErr});
    }
  });
  std::mt19937 random(7);
  Exercise(queue.handle(), context, random);
  Exercise(queue.handle(), context, random);
  done = true;
  clock.join();
  EXPECT_EQ(context.unexpected.load(), noErr);
}

}  // namespace
}  // namespace output_queue_test
