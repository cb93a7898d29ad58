// Writes 16-bit PCM into a WAV file that is valid at every moment: the header's sizes are brought
// up to date after each write, so a reader never has to wait for the file to be closed.
//
// Not thread-safe: used by one device's clock thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Audio/Platform/PlatformTypes.h"

class WavWriter {
 public:
  // Creates (or truncates) the file and writes its header. *status: noErr or kAudioQueueErr_DeviceFailed.
  WavWriter(const std::string& path, uint32_t sampleRate, uint32_t channels, OSStatus* status);
  ~WavWriter();
  WavWriter(const WavWriter&) = delete;
  WavWriter& operator=(const WavWriter&) = delete;

  // Appends interleaved frames. A failed write is reported once on the log and the file keeps
  // what it had; a file never grows past what the WAV sizes can say.
  void append(const int16_t* samples, size_t frames);

 private:
  const std::string path_;
  const uint32_t bytesPerFrame_;
  int fd_ = -1;
  uint32_t dataBytes_ = 0;
  bool failed_ = false;
};
