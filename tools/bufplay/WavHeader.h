// The header of a RIFF WAVE file, read from its first bytes: the "fmt " chunk, then where "data"
// starts (LIST, fact and any other chunk before it are skipped, odd sizes padded as RIFF requires).
// A pure function of the bytes, so that it reads a header that is still arriving on a pipe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

struct WavHeader {
  uint32_t sampleRate = 0;
  uint16_t channels = 0;
  size_t dataOffset = 0;  // where the samples start
  // The data chunk's size, absent when a streaming writer left it unset (0, or a placeholder near
  // 2 GiB as espeak-ng writes): the audio then runs to the end of the input.
  std::optional<size_t> dataBytes;
};

// Whether the bytes start like a RIFF WAVE file (12 bytes are needed to tell).
bool LooksLikeWav(std::span<const uint8_t> bytes);
// The header of 16-bit PCM WAV audio of any rate and channel count, or nothing while the bytes end
// before the data chunk and `complete` is false. Throws BadInput naming what does not fit (another
// sample format, a broken header, no data chunk in complete bytes); `name` starts the message.
std::optional<WavHeader> ParseWavHeader(std::span<const uint8_t> bytes, bool complete, const std::string& name);
