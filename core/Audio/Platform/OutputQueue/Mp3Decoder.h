// Decodes an MP3 stream packet by packet with libmpg123's feed API, for one fixed format.
//
// Each packet is one MPEG audio frame, as a stream parser delivers them. A packet that yields no
// audio (damaged, not a frame, or of another rate or channel count than the queue's) adds nothing
// and is counted; the decoder is reset when such a packet leaves bytes behind, so that they cannot
// spoil the next one. No gapless trimming: the output is the plain decode of the packets given.
//
// Not thread-safe: used by the queue's render pass only.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Audio/Platform/PlatformTypes.h"

struct mpg123_handle_struct;

class Mp3Decoder {
 public:
  // Sets *status to noErr or kAudioQueueErr_DecoderFailed.
  Mp3Decoder(uint32_t sampleRate, uint32_t channels, OSStatus* status);
  ~Mp3Decoder();
  Mp3Decoder(const Mp3Decoder&) = delete;
  Mp3Decoder& operator=(const Mp3Decoder&) = delete;

  // Appends the packet's interleaved samples to out.
  void decode(const uint8_t* packet, size_t size, std::vector<int16_t>& out);
  // Forgets the stream so far (bit reservoir included): the next packet starts a new stream.
  void reset();

  // Any thread: packets that yielded no audio.
  uint64_t failedPackets() const { return failedPackets_.load(std::memory_order_relaxed); }

 private:
  const long sampleRate_;
  const int channels_;
  mpg123_handle_struct* handle_ = nullptr;
  bool formatMatches_ = false;
  std::atomic<uint64_t> failedPackets_{0};
};
