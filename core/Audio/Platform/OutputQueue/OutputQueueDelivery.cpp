// The delivery of an OutputQueue's callbacks: one task at a time on the global work queue, posted
// by the render pass when callbacks wait, delivering them in order until none is left. A callback
// that blocks holds up only this queue's later callbacks; the render pass goes on meanwhile.
#include <new>

#include "Audio/Platform/Dispatch.h"
#include "Audio/Platform/OutputQueue/OutputQueue.h"

namespace {
// The queue whose callbacks this thread is delivering, if any.
thread_local const OutputQueue* tDelivering = nullptr;
}  // namespace

bool OutputQueue::claimDelivery() {
  if (delivering_ || events_.empty()) {
    return false;
  }
  delivering_ = true;
  return true;
}

void OutputQueue::postDelivery() {
  try {
    dispatch_async(dispatch_get_global_queue(0, 0), [queue = shared_from_this()] { queue->deliverEvents(); });
  } catch (const std::bad_alloc&) {
    // Nothing was posted: the next pass tries again.
    std::lock_guard<std::mutex> lock(mutex_);
    delivering_ = false;
  }
}

bool OutputQueue::isDelivering() const { return tDelivering == this; }

void OutputQueue::deliverEvents() {
  tDelivering = this;
  for (;;) {
    Event event{nullptr};
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (disposed_ || events_.empty()) {
        delivering_ = false;
        settled_.notify_all();
        break;
      }
      event = events_.front();
      events_.pop_front();
      if (event.record != nullptr) {
        event.record->enqueued = false;  // from here on the client owns the buffer again
      }
    }
    deliver(event);
  }
  tDelivering = nullptr;
}

void OutputQueue::deliver(const Event& event) {
  if (event.record != nullptr) {
    callback_(userData_, handle_, event.record->header);
    return;
  }
  for (size_t i = 0;; ++i) {
    Listener listener{};
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (disposed_ || i >= listeners_.size()) {
        return;
      }
      listener = listeners_[i];
    }
    listener.proc(listener.userData, handle_, kAudioQueueProperty_IsRunning);
  }
}
