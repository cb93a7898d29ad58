#include "Audio/Platform/OutputQueue/PcmRing.h"

#include <algorithm>
#include <cstring>

PcmRing::PcmRing(size_t capacityFrames, uint32_t channels)
    : capacity_(capacityFrames), channels_(channels), samples_(new int16_t[capacityFrames * channels]()) {}

size_t PcmRing::write(const int16_t* samples, size_t frames) {
  const uint64_t write = write_.load(std::memory_order_relaxed);
  const uint64_t read = read_.load(std::memory_order_acquire);
  const size_t count = std::min(frames, capacity_ - size_t(write - read));
  const size_t start = size_t(write % capacity_);
  const size_t first = std::min(count, capacity_ - start);
  std::memcpy(&samples_[start * channels_], samples, first * channels_ * sizeof(int16_t));
  std::memcpy(&samples_[0], samples + first * channels_, (count - first) * channels_ * sizeof(int16_t));
  write_.store(write + count, std::memory_order_release);
  return count;
}

void PcmRing::read(int16_t* out, size_t frames) {
  const uint64_t read = read_.load(std::memory_order_relaxed);
  const size_t start = size_t(read % capacity_);
  const size_t first = std::min(frames, capacity_ - start);
  std::memcpy(out, &samples_[start * channels_], first * channels_ * sizeof(int16_t));
  std::memcpy(out + first * channels_, &samples_[0], (frames - first) * channels_ * sizeof(int16_t));
  read_.store(read + frames, std::memory_order_seq_cst);
}

void PcmRing::skip(size_t frames) {
  read_.store(read_.load(std::memory_order_relaxed) + frames, std::memory_order_seq_cst);
}
