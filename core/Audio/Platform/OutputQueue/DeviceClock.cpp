#include "Audio/Platform/OutputQueue/DeviceClock.h"

#include <pthread.h>

#include <algorithm>
#include <thread>

#include "Audio/Platform/OutputQueue/ClockedDevice.h"

namespace {
// Outputs due this soon after the one the clock woke for take their period in the same wake-up:
// many players then cost the clock a few wake-ups per period, not one each.
constexpr std::chrono::milliseconds kSlack{2};
}  // namespace

DeviceClock& DeviceClock::instance() {
  static DeviceClock* const clock = new DeviceClock;
  return *clock;
}

DeviceClock::DeviceClock() { std::thread([this] { run(); }).detach(); }

void DeviceClock::add(ClockedDevice& device) {
  std::lock_guard<std::mutex> lock(mutex_);
  devices_.push_back(&device);
  changed_.notify_one();
}

void DeviceClock::remove(ClockedDevice& device) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (const auto it = std::find(devices_.begin(), devices_.end(), &device); it != devices_.end()) {
    devices_.erase(it);
  }
  tickDone_.wait(lock, [&] { return busy_ != &device; });
}

void DeviceClock::run() {
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
