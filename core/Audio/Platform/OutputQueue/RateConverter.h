// Converts interleaved 16-bit audio from the stream's rate to the sound output's, with libsoxr.
//
// The converter holds a few milliseconds of audio inside (its filter's delay); finish() lets them
// out at the end of a stream, after which the next frames start a new stream.
//
// Not thread-safe: used by the queue's render pass only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Audio/Platform/PlatformTypes.h"

struct soxr;

class RateConverter {
 public:
  // Sets *status to noErr or kAudioQueueErr_OutOfMemory.
  RateConverter(uint32_t fromRate, uint32_t toRate, uint32_t channels, OSStatus* status);
  ~RateConverter();
  RateConverter(const RateConverter&) = delete;
  RateConverter& operator=(const RateConverter&) = delete;

  // Appends the converted frames available so far to out.
  void convert(const int16_t* samples, size_t frames, std::vector<int16_t>& out);
  // Appends what the filter still holds and makes ready for a new stream.
  void finish(std::vector<int16_t>& out);
  // Drops what the filter holds and makes ready for a new stream.
  void reset();

 private:
  // Runs the converter on `frames` input frames (none: flush) until it has consumed them all.
  void process(const int16_t* samples, size_t frames, std::vector<int16_t>& out);

  const double ratio_;
  const uint32_t channels_;
  soxr* soxr_ = nullptr;
};
