#include "Audio/Platform/OutputQueue/ClockedDevice.h"

#include <algorithm>
#include <cmath>
#include <system_error>

#include "Audio/Platform/OutputQueue/DeviceClock.h"

namespace {
constexpr uint32_t kPeriodsPerSecond = 100;
// A clock that fell this far behind (a busy machine) starts afresh instead of rushing to catch up.
constexpr std::chrono::milliseconds kGiveUpLag{200};
}  // namespace

ClockedDevice::ClockedDevice(uint32_t sampleRate, uint32_t channels, double speed, uint32_t latencyFrames,
                             Sink sink)
    : sampleRate_(sampleRate),
      channels_(channels),
      periodFrames_(uint32_t(std::clamp(std::lround(sampleRate * speed / kPeriodsPerSecond), 1L, long(sampleRate)))),
      latencyFrames_(latencyFrames),
      period_(std::chrono::duration_cast<Clock::duration>(
          std::chrono::duration<double>(double(periodFrames_) / sampleRate_ / speed))),
      sink_(std::move(sink)) {}

ClockedDevice::~ClockedDevice() { stop(); }

OSStatus ClockedDevice::start(RenderSource& source) {
  if (source_ != nullptr) {
    return noErr;
  }
  source_ = &source;
  buffer_.resize(size_t(periodFrames_) * channels_);
  next_ = Clock::now();
  onGrid_ = false;
  try {
    DeviceClock::instance().add(*this);
  } catch (const std::system_error&) {
    source_ = nullptr;
    return kAudioQueueErr_DeviceFailed;  // the clock thread could not start
  }
  return noErr;
}

void ClockedDevice::stop() {
  if (source_ == nullptr) {
    return;
  }
  DeviceClock::instance().remove(*this);
  source_ = nullptr;
}

void ClockedDevice::tick() {
  const size_t heard = source_->render(buffer_.data(), periodFrames_, latencyFrames_);
  if (heard > 0 && sink_) {
    sink_(buffer_.data(), heard);
  }
  const auto now = Clock::now();
  if (!onGrid_ || now - next_ > kGiveUpLag) {
    // The first period plays at once (start latency); later ones fall on the grid of multiples of
    // the period that every output of this period shares, so that the clock wakes once for all.
    const auto sinceEpoch = (now + period_ / 2).time_since_epoch();
    next_ = Clock::time_point((sinceEpoch + period_ - Clock::duration(1)) / period_ * period_);
    onGrid_ = true;
  } else {
    next_ += period_;
  }
}
