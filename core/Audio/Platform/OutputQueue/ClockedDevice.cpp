#include "Audio/Platform/OutputQueue/ClockedDevice.h"

#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

namespace {
constexpr uint32_t kPeriodsPerSecond = 100;
// A clock that fell this far behind (a busy machine) starts afresh instead of rushing to catch up.
constexpr std::chrono::milliseconds kGiveUpLag{200};
// Outputs due this soon after the one the clock woke for take their period in the same wake-up:
// many players then cost the clock a few wake-ups per period, not one each.
constexpr std::chrono::milliseconds kSlack{2};
}  // namespace

// The one clock thread of the process and the outputs it drives. Never destroyed: its thread may
// still wait while the process exits.
class DeviceClock {
 public:
  static DeviceClock& instance() {
    static DeviceClock* const clock = new DeviceClock;
    return *clock;
  }

  void add(ClockedDevice& device) {
    std::lock_guard<std::mutex> lock(mutex_);
    devices_.push_back(&device);
    changed_.notify_one();
  }

  void remove(ClockedDevice& device) {
    std::unique_lock<std::mutex> lock(mutex_);
    devices_.erase(std::find(devices_.begin(), devices_.end(), &device));
    tickDone_.wait(lock, [&] { return busy_ != &device; });
  }

 private:
  DeviceClock() { std::thread([this] { run(); }).detach(); }

  void run() {
    pthread_setname_np(pthread_self(), "audio-clock");
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      if (devices_.empty()) {
        changed_.wait(lock);
        continue;
      }
      const auto earliest = (*std::min_element(devices_.begin(), devices_.end(), [](auto* a, auto* b) {
                              return a->next_ < b->next_;
                            }))->next_;
      if (ClockedDevice::Clock::now() < earliest) {
        changed_.wait_until(lock, earliest);
        continue;
      }
      // A device is looked up afresh after each period, never kept across the unlocked tick: one
      // stopped meanwhile may be gone.
      const auto horizon = earliest + kSlack;
      const auto isDue = [&](const ClockedDevice* device) { return device->next_ <= horizon; };
      for (;;) {
        const auto due = std::find_if(devices_.begin(), devices_.end(), isDue);
        if (due == devices_.end()) {
          break;
        }
        ClockedDevice* device = *due;
        busy_ = device;
        lock.unlock();
        device->tick();
        lock.lock();
        busy_ = nullptr;
        tickDone_.notify_all();
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;   // an output was added
  std::condition_variable tickDone_;  // busy_ went back to null
  // --- guarded by mutex_ ---
  std::vector<ClockedDevice*> devices_;
  ClockedDevice* busy_ = nullptr;  // the output whose period the clock thread is in
};

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
