// The PCM inside a RIFF WAVE file, found by walking its chunks (a "fmt " chunk, then "data";
// LIST, fact and any other chunk are skipped, odd sizes padded as RIFF requires).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

struct WavAudio {
  uint32_t sampleRate = 0;
  size_t dataOffset = 0;  // where the samples start in the file
  size_t dataBytes = 0;
};

// Whether the bytes start like a RIFF WAVE file.
bool LooksLikeWav(std::span<const uint8_t> file);
// The samples of a 16-bit mono PCM WAV file at 8000 or 16000 Hz; throws BadInput naming what
// does not fit (another layout, rate or sample size, a broken header).
WavAudio ReadWavAudio(std::span<const uint8_t> file, const std::string& name);
