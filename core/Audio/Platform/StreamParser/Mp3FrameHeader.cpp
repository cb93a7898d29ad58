#include "Audio/Platform/StreamParser/Mp3FrameHeader.h"

namespace {

// Layer III bitrates in kbit/s by bitrate index; index 0 (free format) and 15 (reserved) are 0.
constexpr uint16_t kMpeg1Kbps[16] = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0};
constexpr uint16_t kMpeg2Kbps[16] = {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0};

// Sample rates by rate index (3 is reserved).
constexpr uint32_t kMpeg1Rates[3] = {44100, 48000, 32000};

}  // namespace

std::optional<Mp3FrameHeader> ParseMp3FrameHeader(const uint8_t* header) {
  if (header[0] != 0xFF || (header[1] & 0xE0) != 0xE0) {
    return std::nullopt;
  }
  const uint32_t versionBits = (header[1] >> 3) & 3;
  const uint32_t layerBits = (header[1] >> 1) & 3;
  const uint32_t bitrateIndex = header[2] >> 4;
  const uint32_t rateIndex = (header[2] >> 2) & 3;
  const uint32_t emphasis = header[3] & 3;
  if (versionBits == 1 || layerBits != 1 || rateIndex == 3 || emphasis == 2) {
    return std::nullopt;
  }
  Mp3FrameHeader parsed{};
  parsed.version = versionBits == 3 ? Mp3Version::Mpeg1 : versionBits == 2 ? Mp3Version::Mpeg2 : Mp3Version::Mpeg25;
  const bool mpeg1 = parsed.version == Mp3Version::Mpeg1;
  const uint32_t kbps = mpeg1 ? kMpeg1Kbps[bitrateIndex] : kMpeg2Kbps[bitrateIndex];
  if (kbps == 0) {
    return std::nullopt;
  }
  parsed.bitrate = kbps * 1000;
  // MPEG-2 halves the MPEG-1 rates and MPEG-2.5 quarters them.
  parsed.sampleRate = kMpeg1Rates[rateIndex] >> (mpeg1 ? 0 : parsed.version == Mp3Version::Mpeg2 ? 1 : 2);
  parsed.channels = (header[3] >> 6) == 3 ? 1 : 2;
  parsed.hasCrc = (header[1] & 1) == 0;
  parsed.samplesPerFrame = mpeg1 ? 1152 : 576;
  const uint32_t padding = (header[2] >> 1) & 1;
  // samplesPerFrame / 8 bytes per bit/s of bitrate and per sample of rate.
  parsed.frameBytes = parsed.samplesPerFrame / 8 * parsed.bitrate / parsed.sampleRate + padding;
  return parsed;
}

bool SameMp3Stream(const Mp3FrameHeader& a, const Mp3FrameHeader& b) {
  return a.version == b.version && a.sampleRate == b.sampleRate && a.channels == b.channels;
}
