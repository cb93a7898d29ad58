#include "Audio/Platform/Session/SerialTaskQueue.h"

#include "Audio/Platform/Dispatch.h"

void SerialTaskQueue::post(std::function<void()> task) {
  std::lock_guard lock(pending_->mutex);
  pending_->tasks.push_back(std::move(task));
  if (pending_->draining) return;
  pending_->draining = true;
  dispatch_async(dispatch_get_global_queue(0, 0), [pending = pending_] { drain(pending); });
}

void SerialTaskQueue::drain(const std::shared_ptr<Pending>& pending) {
  std::unique_lock lock(pending->mutex);
  while (!pending->tasks.empty()) {
    std::function<void()> task = std::move(pending->tasks.front());
    pending->tasks.pop_front();
    lock.unlock();
    task();
    task = nullptr;  // the task's captures are released outside the lock
    lock.lock();
  }
  pending->draining = false;
}
