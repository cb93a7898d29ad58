#include "Mp3Seconds.h"

namespace {

// Both run inside AudioFileStreamParseBytes on the measuring thread.
void FormatFound(void* meter, AudioFileStreamID stream, AudioFileStreamPropertyID property, uint32_t*) {
  if (property != kAudioFileStreamProperty_ReadyToProducePackets) return;
  auto& state = *static_cast<Mp3Seconds*>(meter);
  uint32_t size = sizeof state.format;
  AudioFileStreamGetProperty(stream, kAudioFileStreamProperty_DataFormat, &size, &state.format);
}

void PacketsFound(void* meter, uint32_t, uint32_t packets, const void*, AudioStreamPacketDescription*) {
  auto& state = *static_cast<Mp3Seconds*>(meter);
  if (state.format.mSampleRate > 0) state.seconds += packets * state.format.mFramesPerPacket / state.format.mSampleRate;
}

}  // namespace

Mp3Seconds::Mp3Seconds() {
  if (AudioFileStreamOpen(this, FormatFound, PacketsFound, kAudioFileMP3Type, &stream_) != noErr) stream_ = nullptr;
}

Mp3Seconds::~Mp3Seconds() {
  if (stream_) AudioFileStreamClose(stream_);
}

double Mp3Seconds::measure(std::span<const uint8_t> bytes) {
  seconds = 0;
  if (!stream_ || bytes.empty()) return 0;
  if (AudioFileStreamParseBytes(stream_, uint32_t(bytes.size()), bytes.data(), 0) != noErr) {
    AudioFileStreamClose(stream_);
    stream_ = nullptr;
    return 0;
  }
  return seconds;
}
