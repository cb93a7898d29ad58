// The process's output queues by handle. A handle is a number that is never handed out twice, so a
// call on a disposed queue finds nothing and touches no memory of it.
//
// Synchronised by one mutex, held only to look up, add or remove; never while a queue runs.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "Audio/Platform/AudioQueue.h"

class OutputQueue;

class QueueRegistry {
 public:
  // Never destroyed: queue threads may still end while the process exits.
  static QueueRegistry& instance();

  // Any thread: a handle no queue has had before.
  AudioQueueRef newHandle();
  // Any thread: the handle handed out last, or null.
  AudioQueueRef newestHandle();
  // Any thread.
  void add(AudioQueueRef handle, std::shared_ptr<OutputQueue> queue);
  // Any thread: the queue, or null when the handle is unknown or disposed.
  std::shared_ptr<OutputQueue> find(AudioQueueRef handle);
  // Any thread: takes the queue out for disposal; null when it is not there. The queue counts as
  // being released until released() is called for it.
  std::shared_ptr<OutputQueue> remove(AudioQueueRef handle);
  // Any thread: a removed queue has released everything.
  void released();
  // Any thread: waits until every removed queue has been released, at most `timeoutSeconds`.
  bool waitForReleases(double timeoutSeconds);

 private:
  QueueRegistry() = default;

  std::mutex mutex_;
  std::condition_variable allReleased_;
  // --- guarded by mutex_ ---
  uint64_t lastHandle_ = 0;
  std::unordered_map<AudioQueueRef, std::shared_ptr<OutputQueue>> queues_;
  size_t releasing_ = 0;
};
