// The four-byte header that starts every MPEG audio frame, read as a pure function so that it can
// be tested over every possible header and fuzzed on its own.
#pragma once

#include <cstdint>
#include <optional>

enum class Mp3Version : uint8_t { Mpeg1, Mpeg2, Mpeg25 };

// A Layer III frame header that passed every check. Layers I and II, the free-format bitrate, the
// reserved version, bitrate, sample-rate and emphasis values are refused: a stream of speech never
// uses them, and refusing them keeps false syncs in junk rare.
struct Mp3FrameHeader {
  Mp3Version version;
  uint32_t bitrate;          // bits per second
  uint32_t sampleRate;       // Hz
  uint32_t channels;         // 1 for mono, 2 for stereo, joint stereo and dual channel
  bool hasCrc;               // a 16-bit CRC follows the header
  uint32_t frameBytes;       // the whole frame, header and padding byte included
  uint32_t samplesPerFrame;  // 1152 for MPEG-1, 576 for MPEG-2 and MPEG-2.5
};

// The largest Layer III frame: 320 kbit/s at 32 kHz (MPEG-1) or 160 kbit/s at 8 kHz (MPEG-2.5),
// with the padding byte.
constexpr uint32_t kMp3MaxFrameBytes = 1441;
// The smallest: 8 kbit/s at 24 kHz (MPEG-2), without padding.
constexpr uint32_t kMp3MinFrameBytes = 24;

// Reads the header in header[0..3]; nullopt when it is not a valid Layer III header.
std::optional<Mp3FrameHeader> ParseMp3FrameHeader(const uint8_t* header);

// Whether two headers can belong to one stream: same version, rate and channel count. The bitrate
// may differ (VBR, and the Xing/Info frame of a CBR stream is often written at another bitrate).
bool SameMp3Stream(const Mp3FrameHeader& a, const Mp3FrameHeader& b);
