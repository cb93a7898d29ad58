// The sound output of tests: a clock that moves only when the test pulls a period's frames, on the
// test's thread. Pulls, start and stop are serialised by one mutex; the render call itself runs
// under it, which is fine here because this clock is not real time and render() never waits.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "Audio/Platform/OutputQueue/OutputDevice.h"

class ManualDevice final : public OutputDevice {
 public:
  // `latencyFrames`: as ClockedDevice's.
  ManualDevice(uint32_t sampleRate, uint32_t channels, uint32_t latencyFrames);

  uint32_t sampleRate() const override { return sampleRate_; }
  // 10 ms.
  uint32_t periodFrames() const override;
  OSStatus start(RenderSource& source) override;
  void stop() override;

  // Any thread: renders `frames` frames as the sound output would and appends what is heard to
  // *heard (may be null). Renders nothing while stopped.
  void pull(uint32_t frames, std::vector<int16_t>* heard);

 private:
  const uint32_t sampleRate_;
  const uint32_t channels_;
  const uint32_t latencyFrames_;
  std::mutex mutex_;
  // --- guarded by mutex_ ---
  RenderSource* source_ = nullptr;
  std::vector<int16_t> buffer_;
};
