#include "WavFile.h"

#include <cstring>

#include "BadInput.h"

namespace {

constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatExtensible = 0xFFFE;
constexpr size_t kRiffHeaderBytes = 12;
constexpr size_t kChunkHeaderBytes = 8;
constexpr size_t kPcmFormatBytes = 16;
constexpr size_t kExtensibleSubFormatOffset = 24;  // the GUID's first two bytes hold the format tag

uint16_t Read16(const uint8_t* bytes) { return uint16_t(bytes[0] | bytes[1] << 8); }
uint32_t Read32(const uint8_t* bytes) { return uint32_t(Read16(bytes)) | uint32_t(Read16(bytes + 2)) << 16; }

}  // namespace

bool LooksLikeWav(std::span<const uint8_t> file) {
  return file.size() >= kRiffHeaderBytes && std::memcmp(file.data(), "RIFF", 4) == 0 &&
         std::memcmp(file.data() + 8, "WAVE", 4) == 0;
}

WavAudio ReadWavAudio(std::span<const uint8_t> file, const std::string& name) {
  if (!LooksLikeWav(file)) throw BadInput(name + ": not a RIFF WAVE file");
  bool formatSeen = false;
  WavAudio audio;
  size_t position = kRiffHeaderBytes;
  while (position + kChunkHeaderBytes <= file.size()) {
    const uint8_t* chunk = file.data() + position;
    const size_t size = Read32(chunk + 4);
    const size_t body = position + kChunkHeaderBytes;
    const size_t available = file.size() - body;
    if (std::memcmp(chunk, "fmt ", 4) == 0) {
      if (size < kPcmFormatBytes || size > available) throw BadInput(name + ": broken WAV format chunk");
      const uint8_t* format = file.data() + body;
      uint16_t tag = Read16(format);
      if (tag == kFormatExtensible && size >= kExtensibleSubFormatOffset + 2) {
        tag = Read16(format + kExtensibleSubFormatOffset);
      }
      const uint16_t channels = Read16(format + 2);
      audio.sampleRate = Read32(format + 4);
      const uint16_t bits = Read16(format + 14);
      if (tag != kFormatPcm || channels != 1 || bits != 16 || (audio.sampleRate != 8000 && audio.sampleRate != 16000)) {
        throw BadInput(name + ": bufplay plays 16-bit mono PCM at 8000 or 16000 Hz; this WAV holds " +
                       (tag == kFormatPcm ? "PCM" : "format " + std::to_string(tag)) + ", " +
                       std::to_string(channels) + " channel(s), " + std::to_string(audio.sampleRate) + " Hz, " +
                       std::to_string(bits) + " bits");
      }
      formatSeen = true;
    } else if (std::memcmp(chunk, "data", 4) == 0) {
      if (!formatSeen) throw BadInput(name + ": WAV data comes before its format chunk");
      audio.dataOffset = body;
      // A recorder that could not seek back leaves the size unset (0 or all ones): the rest of the
      // file is the audio then, as it is when the file was cut short.
      audio.dataBytes = (size == 0 || size > available) ? available : size;
      return audio;
    }
    position = body + size + (size & 1);
  }
  throw BadInput(name + ": WAV file without " + (formatSeen ? "a data chunk" : "a format chunk"));
}
