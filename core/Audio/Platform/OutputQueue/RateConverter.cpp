#include "Audio/Platform/OutputQueue/RateConverter.h"

#include <soxr.h>

RateConverter::RateConverter(uint32_t fromRate, uint32_t toRate, uint32_t channels, OSStatus* status)
    : ratio_(double(toRate) / double(fromRate)), channels_(channels) {
  const soxr_io_spec_t io = soxr_io_spec(SOXR_INT16_I, SOXR_INT16_I);
  const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
  soxr_error_t error = nullptr;
  soxr_ = soxr_create(double(fromRate), double(toRate), channels, &error, &io, &quality, nullptr);
  *status = error == nullptr ? noErr : kAudioQueueErr_OutOfMemory;
}

RateConverter::~RateConverter() {
  if (soxr_ != nullptr) {
    soxr_delete(soxr_);
  }
}

void RateConverter::convert(const int16_t* samples, size_t frames, std::vector<int16_t>& out) {
  if (frames > 0) {
    process(samples, frames, out);
  }
}

void RateConverter::finish(std::vector<int16_t>& out) {
  process(nullptr, 0, out);
  soxr_clear(soxr_);
}

void RateConverter::reset() { soxr_clear(soxr_); }

void RateConverter::process(const int16_t* samples, size_t frames, std::vector<int16_t>& out) {
  // A flush may take several rounds; input is taken whole on the first.
  const size_t room = size_t(double(frames) * ratio_) + 64;
  for (;;) {
    const size_t start = out.size();
    out.resize(start + room * channels_);
    size_t taken = 0;
    size_t made = 0;
    soxr_process(soxr_, samples, frames, &taken, out.data() + start, room, &made);
    out.resize(start + made * channels_);
    samples = samples == nullptr ? nullptr : samples + taken * channels_;
    frames -= taken;
    if (frames == 0 && made < room) {
      return;
    }
  }
}
