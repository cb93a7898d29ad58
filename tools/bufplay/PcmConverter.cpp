#include "PcmConverter.h"

#include "BadInput.h"

namespace {

// Beyond these, a WAV header is more likely broken than a recording of such a rate.
constexpr uint32_t kLowestRate = 1000;
constexpr uint32_t kHighestRate = 768000;

uint32_t NearestPlayerRate(uint32_t rate) { return rate < 12000 ? 8000 : 16000; }

void AppendLittleEndian(const std::vector<int16_t>& samples, std::vector<uint8_t>& out) {
  for (const int16_t sample : samples) {
    out.push_back(uint8_t(uint16_t(sample) & 0xFF));
    out.push_back(uint8_t(uint16_t(sample) >> 8));
  }
}

}  // namespace

PcmConverter::PcmConverter(uint32_t rate, uint16_t channels, const std::string& name)
    : rate_(rate), channels_(channels), outputRate_(NearestPlayerRate(rate)) {
  if (rate < kLowestRate || rate > kHighestRate) {
    throw BadInput(name + ": a sample rate of " + std::to_string(rate) + " Hz is out of bufplay's range (" +
                   std::to_string(kLowestRate) + " to " + std::to_string(kHighestRate) + " Hz)");
  }
  if (rate_ == outputRate_) return;
  OSStatus status = noErr;
  resampler_ = std::make_unique<RateConverter>(rate_, outputRate_, 1, &status);
  if (status != noErr) throw BadInput(name + ": cannot convert from " + std::to_string(rate) + " Hz");
}

std::string PcmConverter::describe() const {
  return std::to_string(rate_) + " Hz, " + std::to_string(channels_) + (channels_ == 1 ? " channel" : " channels") +
         " to " + std::to_string(outputRate_) + " Hz mono";
}

void PcmConverter::convert(std::span<const uint8_t> bytes, std::vector<uint8_t>& out) {
  const size_t frameBytes = 2u * channels_;
  partialFrame_.insert(partialFrame_.end(), bytes.begin(), bytes.end());
  const size_t frames = partialFrame_.size() / frameBytes;
  mono_.clear();
  for (size_t frame = 0; frame < frames; ++frame) {
    const uint8_t* samples = partialFrame_.data() + frame * frameBytes;
    int64_t sum = 0;
    for (size_t channel = 0; channel < channels_; ++channel) {
      sum += int16_t(uint16_t(samples[2 * channel] | samples[2 * channel + 1] << 8));
    }
    mono_.push_back(int16_t(sum / channels_));
  }
  partialFrame_.erase(partialFrame_.begin(), partialFrame_.begin() + std::ptrdiff_t(frames * frameBytes));
  if (!resampler_) {
    AppendLittleEndian(mono_, out);
    return;
  }
  resampled_.clear();
  resampler_->convert(mono_.data(), mono_.size(), resampled_);
  AppendLittleEndian(resampled_, out);
}

void PcmConverter::finish(std::vector<uint8_t>& out) {
  if (!resampler_) return;
  resampled_.clear();
  resampler_->finish(resampled_);
  AppendLittleEndian(resampled_, out);
}
