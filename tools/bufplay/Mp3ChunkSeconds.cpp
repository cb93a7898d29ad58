#include "Mp3ChunkSeconds.h"

#include <algorithm>

#include "Audio/Platform/AudioFileStream.h"

namespace {

struct Measure {
  AudioStreamBasicDescription format{};
  double seconds = 0;  // of the chunk being parsed
};

// Both run inside AudioFileStreamParseBytes on the measuring thread.
void FormatFound(void* measure, AudioFileStreamID stream, AudioFileStreamPropertyID property, uint32_t*) {
  if (property != kAudioFileStreamProperty_ReadyToProducePackets) return;
  auto& state = *static_cast<Measure*>(measure);
  uint32_t size = sizeof state.format;
  AudioFileStreamGetProperty(stream, kAudioFileStreamProperty_DataFormat, &size, &state.format);
}

void PacketsFound(void* measure, uint32_t, uint32_t packets, const void*, AudioStreamPacketDescription*) {
  auto& state = *static_cast<Measure*>(measure);
  if (state.format.mSampleRate > 0) state.seconds += packets * state.format.mFramesPerPacket / state.format.mSampleRate;
}

}  // namespace

std::vector<double> Mp3ChunkSeconds(std::span<const uint8_t> file, size_t chunkBytes) {
  std::vector<double> seconds((file.size() + chunkBytes - 1) / chunkBytes, 0.0);
  Measure measure;
  AudioFileStreamID stream = nullptr;
  if (AudioFileStreamOpen(&measure, FormatFound, PacketsFound, kAudioFileMP3Type, &stream) != noErr) return seconds;
  for (size_t chunk = 0; chunk < seconds.size(); ++chunk) {
    const size_t start = chunk * chunkBytes;
    const size_t size = std::min(chunkBytes, file.size() - start);
    measure.seconds = 0;
    if (AudioFileStreamParseBytes(stream, uint32_t(size), file.data() + start, 0) != noErr) break;
    seconds[chunk] = measure.seconds;
  }
  AudioFileStreamClose(stream);
  return seconds;
}
