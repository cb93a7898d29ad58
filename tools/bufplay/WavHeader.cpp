#include "WavHeader.h"

#include <cstring>

#include "BadInput.h"

namespace {

constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatExtensible = 0xFFFE;
constexpr size_t kRiffHeaderBytes = 12;
constexpr size_t kChunkHeaderBytes = 8;
constexpr size_t kPcmFormatBytes = 16;
constexpr size_t kExtensibleSubFormatOffset = 24;  // the GUID's first two bytes hold the format tag
// Streaming writers that cannot seek back put a size this large (or 0) in the data chunk.
constexpr size_t kUnsetDataSize = 0x7FFF0000;

uint16_t Read16(const uint8_t* bytes) { return uint16_t(bytes[0] | bytes[1] << 8); }
uint32_t Read32(const uint8_t* bytes) { return uint32_t(Read16(bytes)) | uint32_t(Read16(bytes + 2)) << 16; }

}  // namespace

bool LooksLikeWav(std::span<const uint8_t> bytes) {
  return bytes.size() >= kRiffHeaderBytes && std::memcmp(bytes.data(), "RIFF", 4) == 0 &&
         std::memcmp(bytes.data() + 8, "WAVE", 4) == 0;
}

std::optional<WavHeader> ParseWavHeader(std::span<const uint8_t> bytes, bool complete, const std::string& name) {
  if (!LooksLikeWav(bytes)) {
    if (!complete && bytes.size() < kRiffHeaderBytes) return std::nullopt;
    throw BadInput(name + ": not a RIFF WAVE file");
  }
  bool formatSeen = false;
  WavHeader header;
  size_t position = kRiffHeaderBytes;
  while (position + kChunkHeaderBytes <= bytes.size()) {
    const uint8_t* chunk = bytes.data() + position;
    const size_t size = Read32(chunk + 4);
    const size_t body = position + kChunkHeaderBytes;
    if (std::memcmp(chunk, "data", 4) == 0) {
      if (!formatSeen) throw BadInput(name + ": WAV data comes before its format chunk");
      header.dataOffset = body;
      if (size != 0 && size < kUnsetDataSize) header.dataBytes = size;
      return header;
    }
    if (std::memcmp(chunk, "fmt ", 4) == 0) {
      if (size < kPcmFormatBytes) throw BadInput(name + ": broken WAV format chunk");
      if (bytes.size() - body < size) break;  // the rest of the chunk is still to come
      const uint8_t* format = bytes.data() + body;
      uint16_t tag = Read16(format);
      if (tag == kFormatExtensible && size >= kExtensibleSubFormatOffset + 2) {
        tag = Read16(format + kExtensibleSubFormatOffset);
      }
      header.channels = Read16(format + 2);
      header.sampleRate = Read32(format + 4);
      const uint16_t bits = Read16(format + 14);
      if (tag != kFormatPcm || bits != 16 || header.channels == 0 || header.sampleRate == 0) {
        throw BadInput(name + ": bufplay plays 16-bit PCM WAV; this WAV holds " +
                       (tag == kFormatPcm ? "PCM" : "format " + std::to_string(tag)) + ", " +
                       std::to_string(header.channels) + " channel(s), " + std::to_string(header.sampleRate) +
                       " Hz, " + std::to_string(bits) + " bits");
      }
      formatSeen = true;
    }
    position = body + size + (size & 1);
  }
  if (!complete) return std::nullopt;
  throw BadInput(name + ": WAV file without " + (formatSeen ? "a data chunk" : "a format chunk"));
}
