// Turns the bytes of enqueued buffers into frames at the sound output's rate, a piece at a time,
// for the queue's ring: linear PCM as one byte stream across buffers, MP3 packet by packet through
// the decoder, both through the rate converter when the sound output takes another rate.
//
// Not thread-safe: used by the queue's render pass only (failedPackets() excepted).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Audio/Platform/OutputQueue/Mp3Decoder.h"
#include "Audio/Platform/OutputQueue/RateConverter.h"
#include "Audio/Platform/PlatformTypes.h"

// Whether the queue plays this format: noErr, or kAudioQueueErr_UnsupportedFormat.
OSStatus CheckStreamFormat(const AudioStreamBasicDescription& format);

// The part of one enqueued buffer that is still to be rendered.
struct RenderCursor {
  const uint8_t* bytes = nullptr;
  uint32_t size = 0;
  const std::vector<AudioStreamPacketDescription>* packets = nullptr;  // null for linear PCM
  size_t nextPacket = 0;
  uint32_t nextByte = 0;

  bool finished() const { return packets != nullptr ? nextPacket == packets->size() : nextByte == size; }
};

class StreamRenderer {
 public:
  // `format` has passed CheckStreamFormat. Sets *status to noErr or the failure.
  StreamRenderer(const AudioStreamBasicDescription& format, uint32_t outputRate, OSStatus* status);

  // Renders the cursor's next piece (one MP3 packet, or a few thousand bytes of PCM) into the
  // staged frames. The cursor must not be finished.
  void renderNext(RenderCursor& cursor);
  // The stream ends here: stages what the rate converter still holds; a partial PCM frame at the
  // end is dropped. The next buffer starts a new stream.
  void finishStream();
  // Forgets everything not yet taken: staged frames, a partial frame, decoder and converter state.
  void reset();

  // Frames rendered and not yet taken, interleaved.
  const int16_t* staged() const { return staged_.data() + stagedTaken_; }
  size_t stagedFrames() const { return (staged_.size() - stagedTaken_) / channels_; }
  void take(size_t frames);

  // Any thread: MP3 packets that yielded no audio.
  uint64_t failedPackets() const { return decoder_ ? decoder_->failedPackets() : 0; }

 private:
  // Stages interleaved stream-rate samples, through the converter when there is one.
  void stage(const std::vector<int16_t>& samples);

  const uint32_t channels_;
  const uint32_t bytesPerFrame_;
  std::unique_ptr<Mp3Decoder> decoder_;        // MP3 only
  std::unique_ptr<RateConverter> converter_;   // only when the output's rate differs
  std::vector<uint8_t> partialFrame_;          // PCM bytes that do not make a whole frame yet
  std::vector<int16_t> decoded_;               // one piece at the stream's rate
  std::vector<int16_t> staged_;
  size_t stagedTaken_ = 0;                     // samples of staged_ already taken
};
