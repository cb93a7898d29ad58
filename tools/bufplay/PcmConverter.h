// Turns 16-bit PCM of any rate and channel count into what the player takes: mono at 16000 Hz, or
// at 8000 Hz for rates nearer to that. Channels are averaged; the rate is converted with libsoxr
// (the converter the output queue uses for sound outputs), piece by piece as the audio arrives.
//
// Not thread-safe: one thread feeds it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Audio/Platform/OutputQueue/RateConverter.h"

class PcmConverter {
 public:
  // Throws BadInput, starting with `name`, for a rate the converter cannot take.
  PcmConverter(uint32_t rate, uint16_t channels, const std::string& name);

  // The rate the player gets: 8000 or 16000.
  uint32_t outputRate() const { return outputRate_; }
  // Whether the audio needs converting at all.
  bool converts() const { return channels_ != 1 || rate_ != outputRate_; }
  // "22050 Hz, 2 channels to 16000 Hz mono".
  std::string describe() const;

  // Appends the converted audio of these bytes (little-endian samples, interleaved; a frame split
  // across calls is kept whole) to `out`.
  void convert(std::span<const uint8_t> bytes, std::vector<uint8_t>& out);
  // Appends what the converter still holds at the end of the input.
  void finish(std::vector<uint8_t>& out);

 private:
  const uint32_t rate_;
  const uint16_t channels_;
  const uint32_t outputRate_;
  std::unique_ptr<RateConverter> resampler_;  // none at the player's own rate
  std::vector<uint8_t> partialFrame_;
  std::vector<int16_t> mono_;
  std::vector<int16_t> resampled_;
};
