#include "Audio/Platform/OutputQueue/ManualDevice.h"

#include <algorithm>

ManualDevice::ManualDevice(uint32_t sampleRate, uint32_t channels, uint32_t latencyFrames)
    : sampleRate_(sampleRate), channels_(channels), latencyFrames_(latencyFrames) {}

OSStatus ManualDevice::start(RenderSource& source) {
  std::lock_guard<std::mutex> lock(mutex_);
  source_ = &source;
  return noErr;
}

void ManualDevice::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  source_ = nullptr;
}

uint32_t ManualDevice::periodFrames() const { return std::max<uint32_t>(1, sampleRate_ / 100); }

void ManualDevice::pull(uint32_t frames, std::vector<int16_t>* heard) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (source_ == nullptr || frames == 0) {
    return;
  }
  buffer_.resize(size_t(frames) * channels_);
  const size_t audible = source_->render(buffer_.data(), frames, latencyFrames_);
  if (heard != nullptr) {
    heard->insert(heard->end(), buffer_.begin(), buffer_.begin() + long(audible * channels_));
  }
}
