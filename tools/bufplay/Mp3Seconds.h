// Measures how much audio successive pieces of an MP3 stream carry, with the platform's own stream
// parser, so that the producer paces by the frames the player will see (tags, an Info frame and
// junk carry none; a change of rate mid-stream is followed).
//
// Not thread-safe: one thread feeds it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Audio/Platform/AudioFileStream.h"

class Mp3Seconds {
 public:
  Mp3Seconds();
  ~Mp3Seconds();
  Mp3Seconds(const Mp3Seconds&) = delete;
  Mp3Seconds& operator=(const Mp3Seconds&) = delete;

  // Seconds of audio in the complete frames that these bytes end. Once the parser has rejected
  // the stream, every piece counts as none.
  double measure(std::span<const uint8_t> bytes);

  // Only the parser's callbacks use these.
  AudioStreamBasicDescription format{};
  double seconds = 0;  // of the piece being measured

 private:
  AudioFileStreamID stream_ = nullptr;
};
