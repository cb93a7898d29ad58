// What the "wav:PATH" output recorded. It records silence where a queue ran dry, which a loaded
// machine (a sanitizer build) can make happen; the comparison allows for it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "e2e/BufplayProcess.h"

namespace bufplay_test {

struct Recording {
  uint32_t rate = 0;
  uint16_t channels = 0, bits = 0;
  std::vector<int16_t> samples;
};

inline uint32_t Little(const uint8_t* bytes, int count) {
  uint32_t value = 0;
  for (int i = count - 1; i >= 0; --i) value = value << 8 | bytes[i];
  return value;
}

inline std::vector<int16_t> Samples(std::span<const uint8_t> bytes) {
  std::vector<int16_t> samples;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) samples.push_back(int16_t(Little(&bytes[i], 2)));
  return samples;
}

// The WAV output writes one layout: a 44-byte header, then the samples.
inline Recording ReadRecording(const std::string& path) {
  const std::vector<uint8_t> file = ReadBytes(path);
  if (file.size() < 44) return {};
  const size_t size = std::min<size_t>(Little(&file[40], 4), file.size() - 44);
  return {Little(&file[24], 4), uint16_t(Little(&file[22], 2)), uint16_t(Little(&file[34], 2)),
          Samples(std::span(file).subspan(44, size))};
}

// One per output queue, in order: out.wav, out-2.wav, ...
inline std::vector<Recording> ReadRecordings(const ScratchFolder& scratch) {
  std::vector<Recording> recordings;
  for (int n = 1;; ++n) {
    const std::string path = scratch.file(n == 1 ? "out.wav" : "out-" + std::to_string(n) + ".wav");
    if (!std::filesystem::exists(path)) return recordings;
    recordings.push_back(ReadRecording(path));
  }
}

// Whether `heard` is `fed` sample for sample (each within `tolerance`) with nothing added but
// silence. Next to such a gap the queue fades out and back in: there a fed sample may be heard
// quieter, with its sign kept.
inline bool FedWithOnlySilenceAdded(std::span<const int16_t> fed, std::span<const int16_t> heard, int tolerance = 0) {
  constexpr size_t kFadeSamples = 480;  // 5 ms at 96 kHz
  std::vector<size_t> silent, faded;    // positions in heard
  size_t next = 0;                      // of fed
  for (size_t at = 0; at < heard.size(); ++at) {
    const int sample = heard[at];
    const int expected = next < fed.size() ? fed[next] : 0;
    if (next < fed.size() && std::abs(sample - expected) <= tolerance) {
      ++next;
    } else if (sample == 0) {
      silent.push_back(at);
    } else if (next < fed.size() && (sample > 0) == (expected > 0) && std::abs(sample) < std::abs(expected)) {
      faded.push_back(at);
      ++next;
    } else {
      return false;
    }
  }
  for (const size_t at : faded) {
    const auto after = std::lower_bound(silent.begin(), silent.end(), at);
    const bool nearGap = (after != silent.end() && *after - at <= kFadeSamples) ||
                         (after != silent.begin() && at - *(after - 1) <= kFadeSamples);
    if (!nearGap) return false;
  }
  return next == fed.size();
}

}  // namespace bufplay_test
