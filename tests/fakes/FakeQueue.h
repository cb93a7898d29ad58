// One fake output queue: what the player did to it, and the callback thread on which the test's
// commands reach the player's callbacks.
//
// Everything is guarded by mutex. The callback thread runs one command at a time, in order, and
// calls the player without the mutex; it ends once the queue is disposed of and no command is left.
// After disposal the buffers' memory is poisoned for AddressSanitizer (but kept, so that their
// addresses are never given out again), so a player that touches a released buffer is caught.
#pragma once

#include <condition_variable>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Audio/Platform/AudioQueue.h"
#include "fakes/FakePlatform.h"

namespace fake {

class FakeQueue : public std::enable_shared_from_this<FakeQueue> {
 public:
  // Starts the callback thread.
  static std::shared_ptr<FakeQueue> create(int id, AudioQueueRef handle, const AudioStreamBasicDescription& format,
                                           AudioQueueOutputCallback callback, void* userData);
  ~FakeQueue();
  FakeQueue(const FakeQueue&) = delete;
  FakeQueue& operator=(const FakeQueue&) = delete;

  const int id;  // q=N
  const AudioQueueRef handle;

  struct Buffer {
    int id;  // buf=N
    std::unique_ptr<uint8_t[]> data;
    std::unique_ptr<AudioQueueBuffer> header;  // the handle given to the player
    bool inQueue = false;                      // enqueued and not yet played back
  };

  mutable std::mutex mutex;
  // --- guarded by mutex ---
  QueueState state;
  std::vector<Buffer> buffers;

  AudioQueuePropertyListenerProc runningListener = nullptr;
  void* runningListenerUserData = nullptr;

  // Caller holds mutex.
  Buffer* findBuffer(AudioQueueBufferRef handle);
  Buffer& addBuffer(uint32_t capacity);
  // No callback starts after this; a command still waiting is answered false.
  void dispose();

  // Test side; each takes mutex itself. The waiting ones fail the test when they fail.
  bool playBack();
  bool playBackAll();
  bool playBackFromManyThreads();
  bool reportRunning(bool running);

 private:
  FakeQueue(int id, AudioQueueRef handle, const AudioStreamBasicDescription& format, AudioQueueOutputCallback callback,
            void* userData);

  // Runs on the callback thread.
  void serveCommands();
  // Caller holds mutex. Queues a command for the callback thread.
  std::future<bool> schedule(std::function<bool()> command);
  // Awaits a command scheduled on the callback thread; fails on that thread itself.
  bool awaitCommand(std::future<bool>& done, const char* what) const;
  // The next enqueued buffer to play back, or false (and the test fails) when there is none; caller
  // holds mutex.
  bool takeNextToPlayBack(size_t& index);
  // Calls the output callback with enqueued[index], unless the queue has been disposed of; any
  // thread, without mutex.
  bool returnBuffer(size_t index);

  const AudioQueueOutputCallback outputCallback_;
  void* const outputUserData_;
  // --- guarded by mutex ---
  std::deque<std::packaged_task<bool()>> commands_;
  size_t nextToPlayBack_ = 0;  // index into state.enqueued
  std::thread::id callbackThread_;
  std::condition_variable commandsChanged_;
};

}  // namespace fake
