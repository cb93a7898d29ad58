#include "Audio/Platform/OutputQueue/QueueRegistry.h"

#include <chrono>

QueueRegistry& QueueRegistry::instance() {
  static QueueRegistry* const registry = new QueueRegistry;
  return *registry;
}

AudioQueueRef QueueRegistry::newHandle() {
  std::lock_guard<std::mutex> lock(mutex_);
  return reinterpret_cast<AudioQueueRef>(uintptr_t(++lastHandle_));
}

AudioQueueRef QueueRegistry::newestHandle() {
  std::lock_guard<std::mutex> lock(mutex_);
  return reinterpret_cast<AudioQueueRef>(uintptr_t(lastHandle_));
}

void QueueRegistry::add(AudioQueueRef handle, std::shared_ptr<OutputQueue> queue) {
  std::lock_guard<std::mutex> lock(mutex_);
  queues_.emplace(handle, std::move(queue));
}

std::shared_ptr<OutputQueue> QueueRegistry::find(AudioQueueRef handle) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = queues_.find(handle);
  return found != queues_.end() ? found->second : nullptr;
}

std::shared_ptr<OutputQueue> QueueRegistry::remove(AudioQueueRef handle) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = queues_.find(handle);
  if (found == queues_.end()) {
    return nullptr;
  }
  std::shared_ptr<OutputQueue> queue = std::move(found->second);
  queues_.erase(found);
  ++releasing_;
  return queue;
}

void QueueRegistry::released() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (--releasing_ == 0) {
    allReleased_.notify_all();
  }
}

bool QueueRegistry::waitForReleases(double timeoutSeconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  return allReleased_.wait_for(lock, std::chrono::duration<double>(timeoutSeconds), [&] { return releasing_ == 0; });
}
