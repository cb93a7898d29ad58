#include "Audio/Platform/OutputQueue/StreamRenderer.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace {
// PCM is rendered in pieces of this many bytes, so that the staged copy stays small and in cache.
constexpr uint32_t kPcmPieceBytes = 4096;
constexpr std::array<double, 9> kMpegRates = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000};

bool isLinearPcm16(const AudioStreamBasicDescription& format) {
  const uint32_t bytesPerFrame = 2 * format.mChannelsPerFrame;
  return (format.mFormatFlags & kAudioFormatFlagIsSignedInteger) != 0 &&
         (format.mFormatFlags & (kAudioFormatFlagIsFloat | kAudioFormatFlagIsBigEndian)) == 0 &&
         format.mBitsPerChannel == 16 && format.mBytesPerFrame == bytesPerFrame && format.mFramesPerPacket == 1 &&
         format.mBytesPerPacket == bytesPerFrame;
}
}  // namespace

OSStatus CheckStreamFormat(const AudioStreamBasicDescription& format) {
  const double rate = format.mSampleRate;
  const bool channelsOk = format.mChannelsPerFrame == 1 || format.mChannelsPerFrame == 2;
  if (format.mFormatID == kAudioFormatLinearPCM) {
    const bool rateOk = std::isfinite(rate) && rate >= 1000 && rate <= 768000 && rate == std::floor(rate);
    return channelsOk && rateOk && isLinearPcm16(format) ? noErr : kAudioQueueErr_UnsupportedFormat;
  }
  if (format.mFormatID == kAudioFormatMPEGLayer3) {
    const bool rateOk = std::find(kMpegRates.begin(), kMpegRates.end(), rate) != kMpegRates.end();
    return channelsOk && rateOk ? noErr : kAudioQueueErr_UnsupportedFormat;
  }
  return kAudioQueueErr_UnsupportedFormat;
}

StreamRenderer::StreamRenderer(const AudioStreamBasicDescription& format, uint32_t outputRate, OSStatus* status)
    : channels_(format.mChannelsPerFrame), bytesPerFrame_(2 * format.mChannelsPerFrame) {
  const auto streamRate = uint32_t(format.mSampleRate);
  *status = noErr;
  if (format.mFormatID == kAudioFormatMPEGLayer3) {
    decoder_ = std::make_unique<Mp3Decoder>(streamRate, channels_, status);
  }
  if (*status == noErr && outputRate != streamRate) {
    converter_ = std::make_unique<RateConverter>(streamRate, outputRate, channels_, status);
  }
}

void StreamRenderer::renderNext(RenderCursor& cursor) {
  decoded_.clear();
  if (cursor.packets != nullptr) {
    const AudioStreamPacketDescription& packet = (*cursor.packets)[cursor.nextPacket++];
    decoder_->decode(cursor.bytes + packet.mStartOffset, packet.mDataByteSize, decoded_);
  } else {
    const uint32_t count = std::min(kPcmPieceBytes, cursor.size - cursor.nextByte);
    partialFrame_.insert(partialFrame_.end(), cursor.bytes + cursor.nextByte, cursor.bytes + cursor.nextByte + count);
    cursor.nextByte += count;
    const size_t whole = partialFrame_.size() / bytesPerFrame_ * bytesPerFrame_;
    for (size_t i = 0; i < whole; i += 2) {
      decoded_.push_back(int16_t(uint16_t(partialFrame_[i]) | uint16_t(partialFrame_[i + 1]) << 8));
    }
    partialFrame_.erase(partialFrame_.begin(), partialFrame_.begin() + long(whole));
  }
  stage(decoded_);
}

void StreamRenderer::finishStream() {
  partialFrame_.clear();
  if (converter_) {
    converter_->finish(staged_);
  }
}

void StreamRenderer::reset() {
  partialFrame_.clear();
  staged_.clear();
  stagedTaken_ = 0;
  if (decoder_) {
    decoder_->reset();
  }
  if (converter_) {
    converter_->reset();
  }
}

void StreamRenderer::take(size_t frames) {
  stagedTaken_ += frames * channels_;
  if (stagedTaken_ == staged_.size()) {
    staged_.clear();
    stagedTaken_ = 0;
  }
}

void StreamRenderer::stage(const std::vector<int16_t>& samples) {
  if (converter_) {
    converter_->convert(samples.data(), samples.size() / channels_, staged_);
  } else {
    staged_.insert(staged_.end(), samples.begin(), samples.end());
  }
}
