#include "Audio/Platform/OutputQueue/ClockedDevice.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <system_error>
#include <vector>

namespace {
constexpr uint32_t kPeriodsPerSecond = 100;
// A clock that fell this far behind (a busy machine) starts afresh instead of rushing to catch up.
constexpr std::chrono::milliseconds kGiveUpLag{200};
}  // namespace

ClockedDevice::ClockedDevice(uint32_t sampleRate, uint32_t channels, double speed, uint32_t latencyFrames,
                             Sink sink)
    : sampleRate_(sampleRate),
      channels_(channels),
      speed_(speed),
      periodFrames_(uint32_t(std::clamp(std::lround(sampleRate * speed / kPeriodsPerSecond), 1L, long(sampleRate)))),
      latencyFrames_(latencyFrames),
      sink_(std::move(sink)) {}

ClockedDevice::~ClockedDevice() { stop(); }

OSStatus ClockedDevice::start(RenderSource& source) {
  if (thread_.joinable()) {
    return noErr;
  }
  stopping_ = false;
  try {
    thread_ = std::thread([this, &source] { run(source); });
  } catch (const std::system_error&) {
    return kAudioQueueErr_DeviceFailed;
  }
  return noErr;
}

void ClockedDevice::stop() {
  if (!thread_.joinable()) {
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void ClockedDevice::run(RenderSource& source) {
  pthread_setname_np(pthread_self(), "audio-clock");
  using Clock = std::chrono::steady_clock;
  const auto period = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(double(periodFrames_) / sampleRate_ / speed_));
  std::vector<int16_t> buffer(size_t(periodFrames_) * channels_);
  auto next = Clock::now();
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    lock.unlock();
    const size_t heard = source.render(buffer.data(), periodFrames_, latencyFrames_);
    if (heard > 0 && sink_) {
      sink_(buffer.data(), heard);
    }
    next += period;
    const auto now = Clock::now();
    if (now - next > kGiveUpLag) {
      next = now;
    }
    lock.lock();
    wake_.wait_until(lock, next, [&] { return stopping_; });
  }
}
