// A queue on a chosen sound output with a log of its callbacks, and PCM test signals.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "Audio/Platform/AudioQueue.h"
#include "Audio/Platform/OutputQueue/OutputDevices.h"

namespace output_queue_test {

// Waits that take longer than this have failed; the test reports it instead of hanging.
constexpr auto kDeadline = std::chrono::seconds(20);

inline AudioStreamBasicDescription PcmFormat(double rate, uint32_t channels = 1) {
  return {rate, kAudioFormatLinearPCM, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked,
          2 * channels, 1, 2 * channels, channels, 16, 0};
}

// Samples first, first + 1, ...: any lost, repeated or reordered sample shows.
inline std::vector<int16_t> Ramp(size_t samples, int16_t first = 1) {
  std::vector<int16_t> ramp(samples);
  for (size_t i = 0; i < samples; ++i) ramp[i] = int16_t(first + int16_t(i % 20000));
  return ramp;
}

// A returned buffer, or (buffer null) the IsRunning value read on a running-state change.
struct Callback {
  AudioQueueBufferRef buffer;
  uint32_t running;
  bool operator==(const Callback&) const = default;
};
inline Callback Returned(AudioQueueBufferRef buffer) { return {buffer, 0}; }
inline Callback RunningIs(uint32_t running) { return {nullptr, running}; }

class CallbackLog {
 public:
  static void BufferDone(void* self, AudioQueueRef, AudioQueueBufferRef buffer) {
    static_cast<CallbackLog*>(self)->add(Returned(buffer));
  }
  static void RunningChanged(void* self, AudioQueueRef queue, AudioQueuePropertyID id) {
    uint32_t running = 99;
    uint32_t size = sizeof running;
    const OSStatus status = AudioQueueGetProperty(queue, id, &running, &size);
    // A test may dispose of its queue while a change is still on its way to this listener.
    if (status == kAudioQueueErr_InvalidQueue) return;
    EXPECT_EQ(status, noErr);
    static_cast<CallbackLog*>(self)->add(RunningIs(running));
  }

  std::vector<Callback> callbacks() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return callbacks_;
  }
  bool waitUntilStopped() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kDeadline, [&] { return !callbacks_.empty() && callbacks_.back() == RunningIs(0); });
  }

 private:
  void add(Callback callback) {
    std::lock_guard<std::mutex> lock(mutex_);
    callbacks_.push_back(callback);
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Callback> callbacks_;
};

// A queue on the sound output named by `output` (empty: the one selected last), logging both
// callbacks; disposed, and waited for, at the end of the test.
class TestQueue {
 public:
  explicit TestQueue(const AudioStreamBasicDescription& format, const std::string& output = "manual",
                     double speed = 1.0, double latencySeconds = 0.0) {
    if (!output.empty()) {
      EXPECT_EQ(AudioOutputSelect(output, speed, latencySeconds), noErr);
    }
    EXPECT_EQ(AudioQueueNewOutput(&format, &CallbackLog::BufferDone, &log_, nullptr, nullptr, 0, &queue_), noErr);
    EXPECT_EQ(noErr, AudioQueueAddPropertyListener(queue_, kAudioQueueProperty_IsRunning,
                                                   &CallbackLog::RunningChanged, &log_));
  }
  ~TestQueue() {
    AudioQueueDispose(queue_, true);
    EXPECT_TRUE(AudioQueueWaitForReleases(std::chrono::duration<double>(kDeadline).count()));
  }
  TestQueue(const TestQueue&) = delete;
  TestQueue& operator=(const TestQueue&) = delete;

  AudioQueueRef handle() const { return queue_; }
  CallbackLog& log() { return log_; }

  AudioQueueBufferRef enqueue(const std::vector<int16_t>& samples) {
    const auto size = uint32_t(samples.size() * 2);
    AudioQueueBufferRef buffer = nullptr;
    EXPECT_EQ(AudioQueueAllocateBuffer(queue_, size, &buffer), noErr);
    std::memcpy(buffer->mAudioData, samples.data(), size);
    buffer->mAudioDataByteSize = size;
    EXPECT_EQ(AudioQueueEnqueueBuffer(queue_, buffer, 0, nullptr), noErr);
    return buffer;
  }

  // Moves the manual clock; returns what was heard.
  std::vector<int16_t> advance(uint32_t frames) {
    std::vector<int16_t> heard;
    EXPECT_EQ(AudioOutputManualAdvance(queue_, frames, &heard), noErr);
    return heard;
  }
  double sampleTime() {
    AudioTimeStamp time{};
    EXPECT_EQ(AudioQueueGetCurrentTime(queue_, nullptr, &time, nullptr), noErr);
    return time.mSampleTime;
  }
  uint32_t isRunning() {
    uint32_t running = 99;
    uint32_t size = sizeof running;
    EXPECT_EQ(AudioQueueGetProperty(queue_, kAudioQueueProperty_IsRunning, &running, &size), noErr);
    return running;
  }

 private:
  CallbackLog log_;
  AudioQueueRef queue_ = nullptr;
};

}  // namespace output_queue_test
