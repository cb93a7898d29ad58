#include "fakes/FakeQueue.h"

#include <gtest/gtest.h>
#include <sanitizer/asan_interface.h>

#include <latch>

#include "fakes/FakeWorld.h"

namespace fake {

size_t QueueState::waitingBuffers() const {
  size_t waiting = 0;
  for (const EnqueuedBuffer& buffer : enqueued) waiting += buffer.returned ? 0 : 1;
  return waiting;
}

std::vector<uint8_t> QueueState::allEnqueuedBytes() const {
  std::vector<uint8_t> bytes;
  for (const EnqueuedBuffer& buffer : enqueued) bytes.insert(bytes.end(), buffer.bytes.begin(), buffer.bytes.end());
  return bytes;
}

FakeQueue::FakeQueue(int id, AudioQueueRef handle, const AudioStreamBasicDescription& format,
                     AudioQueueOutputCallback callback, void* userData)
    : id(id), handle(handle), outputCallback_(callback), outputUserData_(userData) {
  state.id = id;
  state.format = format;
}

std::shared_ptr<FakeQueue> FakeQueue::create(int id, AudioQueueRef handle, const AudioStreamBasicDescription& format,
                                             AudioQueueOutputCallback callback, void* userData) {
  std::shared_ptr<FakeQueue> queue(new FakeQueue(id, handle, format, callback, userData));
  // The thread owns the queue until it ends, so a callback running while the test resets keeps it.
  std::thread([queue] { queue->serveCommands(); }).detach();
  return queue;
}

FakeQueue::~FakeQueue() {
  for (Buffer& buffer : buffers) {
    ASAN_UNPOISON_MEMORY_REGION(buffer.header.get(), sizeof(AudioQueueBuffer));
    ASAN_UNPOISON_MEMORY_REGION(buffer.data.get(), buffer.header->mAudioDataBytesCapacity);
  }
}

FakeQueue::Buffer* FakeQueue::findBuffer(AudioQueueBufferRef handle) {
  for (Buffer& buffer : buffers) {
    if (buffer.header.get() == handle) return &buffer;
  }
  return nullptr;
}

FakeQueue::Buffer& FakeQueue::addBuffer(uint32_t capacity) {
  Buffer buffer{int(buffers.size()) + 1, std::make_unique<uint8_t[]>(capacity), nullptr};
  buffer.header.reset(new AudioQueueBuffer{capacity, buffer.data.get(), 0});
  buffers.push_back(std::move(buffer));
  return buffers.back();
}

void FakeQueue::dispose() {
  state.disposed = true;
  for (Buffer& buffer : buffers) {
    ASAN_POISON_MEMORY_REGION(buffer.data.get(), buffer.header->mAudioDataBytesCapacity);
    ASAN_POISON_MEMORY_REGION(buffer.header.get(), sizeof(AudioQueueBuffer));
  }
  commandsChanged_.notify_all();
}

void FakeQueue::serveCommands() {
  std::unique_lock lock(mutex);
  callbackThread_ = std::this_thread::get_id();
  for (;;) {
    commandsChanged_.wait(lock, [this] { return !commands_.empty() || state.disposed; });
    if (commands_.empty()) return;
    std::packaged_task<bool()> command = std::move(commands_.front());
    commands_.pop_front();
    lock.unlock();
    command();
    lock.lock();
  }
}

std::future<bool> FakeQueue::schedule(std::function<bool()> command) {
  std::packaged_task<bool()> task(std::move(command));
  std::future<bool> done = task.get_future();
  commands_.push_back(std::move(task));
  commandsChanged_.notify_all();
  return done;
}

bool FakeQueue::awaitCommand(std::future<bool>& done, const char* what) const {
  {
    std::lock_guard lock(mutex);
    if (std::this_thread::get_id() == callbackThread_) {
      ADD_FAILURE() << "q=" << id << ": waiting for " << what << " on its own callback thread would never end";
      return false;
    }
  }
  if (!await(done, what)) return false;
  if (!done.get()) {
    ADD_FAILURE() << "q=" << id << " was disposed of before " << what << " could run";
    return false;
  }
  return true;
}

bool FakeQueue::takeNextToPlayBack(size_t& index) {
  if (state.disposed) {
    ADD_FAILURE() << "q=" << id << " has been disposed of: nothing plays back";
    return false;
  }
  if (nextToPlayBack_ >= state.enqueued.size()) {
    ADD_FAILURE() << "q=" << id << " has no enqueued buffer waiting to be played back";
    return false;
  }
  index = nextToPlayBack_++;
  return true;
}

bool FakeQueue::returnBuffer(size_t index) {
  AudioQueueBufferRef buffer;
  {
    std::lock_guard lock(mutex);
    if (state.disposed) return false;
    EnqueuedBuffer& entry = state.enqueued[index];
    entry.returned = true;
    if (Buffer* owned = findBuffer(entry.handle)) owned->inQueue = false;
    buffer = entry.handle;
  }
  outputCallback_(outputUserData_, handle, buffer);
  return true;
}

bool FakeQueue::playBack() {
  std::future<bool> done;
  {
    std::lock_guard lock(mutex);
    size_t index;
    if (!takeNextToPlayBack(index)) return false;
    done = schedule([this, index] { return returnBuffer(index); });
  }
  return awaitCommand(done, "the output callback");
}

bool FakeQueue::playBackAll() {
  size_t waiting;
  {
    std::lock_guard lock(mutex);
    waiting = state.enqueued.size() - nextToPlayBack_;
  }
  for (size_t i = 0; i < waiting; ++i) {
    if (!playBack()) return false;
  }
  return true;
}

bool FakeQueue::playBackFromManyThreads() {
  std::vector<size_t> indices;
  {
    std::lock_guard lock(mutex);
    size_t index;
    if (!takeNextToPlayBack(index)) return false;
    indices.push_back(index);
    while (nextToPlayBack_ < state.enqueued.size()) indices.push_back(nextToPlayBack_++);
  }
  struct Finish {
    std::mutex mutex;
    std::condition_variable changed;
    size_t finished = 0;  // guarded by mutex
    size_t called = 0;    // guarded by mutex
  };
  auto finish = std::make_shared<Finish>();
  auto start = std::make_shared<std::latch>(1);
  std::vector<std::thread> threads;
  for (size_t index : indices) {
    threads.emplace_back([self = shared_from_this(), index, start, finish] {
      start->wait();
      const bool called = self->returnBuffer(index);
      std::lock_guard lock(finish->mutex);
      ++finish->finished;
      finish->called += called ? 1 : 0;
      finish->changed.notify_all();
    });
  }
  start->count_down();
  std::unique_lock lock(finish->mutex);
  const bool finished =
      finish->changed.wait_for(lock, kWaitTimeout, [&] { return finish->finished == indices.size(); });
  const bool allCalled = finish->called == indices.size();
  lock.unlock();
  for (std::thread& thread : threads) finished ? thread.join() : thread.detach();
  if (!finished) ADD_FAILURE() << "output callbacks did not return within " << kWaitTimeout.count() << " s";
  if (finished && !allCalled) ADD_FAILURE() << "the queue was disposed of before every callback could run";
  return finished && allCalled;
}

bool FakeQueue::reportRunning(bool running) {
  std::future<bool> done;
  {
    std::lock_guard lock(mutex);
    if (state.disposed) {
      ADD_FAILURE() << "q=" << id << " has been disposed of: it reports nothing";
      return false;
    }
    done = schedule([this, running] {
      AudioQueuePropertyListenerProc listener;
      void* userData;
      {
        std::lock_guard lock(mutex);
        if (state.disposed) return false;
        state.running = running;
        listener = runningListener;
        userData = runningListenerUserData;
      }
      if (listener) listener(userData, handle, kAudioQueueProperty_IsRunning);
      return true;
    });
  }
  return awaitCommand(done, "the running-state listener");
}

}  // namespace fake
