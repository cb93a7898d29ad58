#include "Audio/Platform/OutputQueue/OutputFaults.h"

#include <array>
#include <atomic>

namespace {
struct ArmedFault {
  std::atomic<uint32_t> remaining{0};
  std::atomic<OSStatus> status{noErr};
};
std::array<ArmedFault, 4> armed;
}  // namespace

void AudioQueueFailNextCalls(AudioQueueCall call, OSStatus status, uint32_t count) {
  ArmedFault& fault = armed[size_t(call)];
  fault.status.store(status, std::memory_order_relaxed);
  fault.remaining.store(count, std::memory_order_release);
}

OSStatus TakeArmedFault(AudioQueueCall call) {
  ArmedFault& fault = armed[size_t(call)];
  uint32_t remaining = fault.remaining.load(std::memory_order_acquire);
  while (remaining > 0) {
    if (fault.remaining.compare_exchange_weak(remaining, remaining - 1, std::memory_order_acq_rel)) {
      return fault.status.load(std::memory_order_relaxed);
    }
  }
  return noErr;
}
