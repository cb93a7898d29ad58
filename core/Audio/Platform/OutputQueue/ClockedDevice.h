// A sound output that is only a clock: a thread of its own pulls one period at a time and hands
// what is heard to a sink. The null output discards it; the WAV output writes it. In real time a
// period is 10 ms, as a sound card's; run `speed` times faster, a period holds `speed` times more
// frames (up to a second of audio) rather than coming more often, so that a benchmark measures the
// queue's work and not the clock's wake-ups.
//
// The thread renders into a buffer allocated at start and calls the sink outside the render call;
// start and stop are serialised by the caller. The thread waits on a condition variable, so stop()
// wakes it at once and joins it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

#include "Audio/Platform/OutputQueue/OutputDevice.h"

class ClockedDevice final : public OutputDevice {
 public:
  // Called on the clock thread with the frames heard in one period.
  using Sink = std::function<void(const int16_t* samples, size_t frames)>;

  // `latencyFrames`: how long the output claims to hold the frames it has taken before they are
  // heard (tests of time as heard); the sink still gets them at once.
  ClockedDevice(uint32_t sampleRate, uint32_t channels, double speed, uint32_t latencyFrames, Sink sink);
  ~ClockedDevice() override;

  uint32_t sampleRate() const override { return sampleRate_; }
  uint32_t periodFrames() const override { return periodFrames_; }
  OSStatus start(RenderSource& source) override;
  void stop() override;

 private:
  // The clock thread.
  void run(RenderSource& source);

  const uint32_t sampleRate_;
  const uint32_t channels_;
  const double speed_;
  const uint32_t periodFrames_;
  const uint32_t latencyFrames_;
  const Sink sink_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;  // guarded by mutex_
};
