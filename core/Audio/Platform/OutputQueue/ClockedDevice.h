// A sound output that is only a clock: the process's one clock thread pulls a period at a time
// from every started clocked output and hands what is heard to each one's sink. The null output
// discards it; the WAV output writes it. In real time a period is 10 ms, as a sound card's; run
// `speed` times faster, a period holds `speed` times more frames (up to a second of audio) rather
// than coming more often, so that a benchmark measures the queue's work and not the clock's
// wake-ups. After the first period, which plays at start, periods fall on a grid that all outputs
// of the same period share: the clock wakes once a period for all of them, not once for each.
//
// The clock thread renders into a buffer of the output's own, allocated at start, and calls the
// sink outside the render call. Start and stop are serialised by the caller; stop() returns once
// the clock thread is not in this output's render or sink and will not enter them again.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

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
  friend class DeviceClock;
  using Clock = std::chrono::steady_clock;

  // The clock thread: one period, and when the next is due.
  void tick();

  const uint32_t sampleRate_;
  const uint32_t channels_;
  const uint32_t periodFrames_;
  const uint32_t latencyFrames_;
  const Clock::duration period_;
  const Sink sink_;
  // --- set by start() before the clock sees the output, then the clock thread's ---
  RenderSource* source_ = nullptr;
  std::vector<int16_t> buffer_;
  Clock::time_point next_;
  bool onGrid_ = false;  // next_ is on the period's grid
};
