#include "Audio/Platform/OutputQueue/Mp3Decoder.h"

#include <mpg123.h>

#include "Diagnostics/qen_log.h"

Mp3Decoder::Mp3Decoder(uint32_t sampleRate, uint32_t channels, OSStatus* status)
    : sampleRate_(long(sampleRate)), channels_(int(channels)) {
  int error = MPG123_OK;
  handle_ = mpg123_new(nullptr, &error);
  *status = kAudioQueueErr_DecoderFailed;
  if (handle_ == nullptr) {
    return;
  }
  // Whole frames are fed, so the decoder need not wait for the next header before it decodes
  // one; it must neither resample nor trim, and it prints nothing.
  mpg123_param(handle_, MPG123_ADD_FLAGS, MPG123_QUIET | MPG123_NO_READAHEAD, 0.0);
  mpg123_param(handle_, MPG123_REMOVE_FLAGS, MPG123_GAPLESS | MPG123_AUTO_RESAMPLE, 0.0);
  // Every rate and channel count decodes at its own format, so that a frame of another format
  // is recognised rather than converted.
  mpg123_format_none(handle_);
  const long* rates = nullptr;
  size_t rateCount = 0;
  mpg123_rates(&rates, &rateCount);
  for (size_t i = 0; i < rateCount; ++i) {
    mpg123_format(handle_, rates[i], MPG123_MONO | MPG123_STEREO, MPG123_ENC_SIGNED_16);
  }
  if (mpg123_open_feed(handle_) == MPG123_OK) {
    *status = noErr;
  }
}

Mp3Decoder::~Mp3Decoder() {
  if (handle_ != nullptr) {
    mpg123_delete(handle_);
  }
}

void Mp3Decoder::decode(const uint8_t* packet, size_t size, std::vector<int16_t>& out) {
  size_t produced = 0;
  bool failed = mpg123_feed(handle_, packet, size) != MPG123_OK;
  while (!failed) {
    off_t frameNumber = 0;
    unsigned char* audio = nullptr;
    size_t bytes = 0;
    const int result = mpg123_decode_frame(handle_, &frameNumber, &audio, &bytes);
    if (result == MPG123_NEW_FORMAT) {
      long rate = 0;
      int channels = 0;
      int encoding = 0;
      mpg123_getformat(handle_, &rate, &channels, &encoding);
      formatMatches_ = rate == sampleRate_ && channels == channels_ && encoding == MPG123_ENC_SIGNED_16;
    } else if (result == MPG123_OK) {
      if (formatMatches_ && bytes > 0) {
        const auto* samples = reinterpret_cast<const int16_t*>(audio);
        out.insert(out.end(), samples, samples + bytes / sizeof(int16_t));
        produced += bytes;
      }
    } else {
      failed = result != MPG123_NEED_MORE;
      break;
    }
  }
  long leftover = 0;
  mpg123_getstate(handle_, MPG123_BUFFERFILL, &leftover, nullptr);
  if (failed || leftover > 0) {
    reset();
  }
  if (produced == 0) {
    const uint64_t count = failedPackets_.fetch_add(1, std::memory_order_relaxed) + 1;
    LOG_DEBUG("MP3 packet of %zu bytes yielded no audio (%llu so far)", size, static_cast<unsigned long long>(count));
  }
}

void Mp3Decoder::reset() {
  // The output format survives: libmpg123 announces a new one only when it differs from the last.
  mpg123_open_feed(handle_);
}
