// The output queue functions of the fake and the test's commands on a queue. Each call holds the
// world's mutex for the whole call, so a check and its effect are one step.
#include <gtest/gtest.h>

#include "Audio/Platform/AudioQueue.h"
#include "Diagnostics/qen_log.h"
#include "fakes/FakeWorld.h"

namespace fake {

size_t QueueState::waitingBuffers() const {
  return size_t(std::count_if(enqueued.begin(), enqueued.end(), [](const auto& buffer) { return !buffer.returned; }));
}

std::vector<uint8_t> QueueState::allEnqueuedBytes() const {
  std::vector<uint8_t> bytes;
  for (const EnqueuedBuffer& buffer : enqueued) bytes.insert(bytes.end(), buffer.bytes.begin(), buffer.bytes.end());
  return bytes;
}

QueueState Queue::state() const {
  if (!queue_) return {};
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  return queue_->state;
}

bool Queue::playBack() {
  if (!queue_) return false;
  AudioQueueBufferRef buffer;
  {
    const auto world = fake::world();
    std::lock_guard lock(world->mutex);
    if (queue_->state.disposed || queue_->nextToPlayBack >= queue_->state.enqueued.size()) return false;
    EnqueuedBuffer& next = queue_->state.enqueued[queue_->nextToPlayBack++];
    next.returned = true;
    buffer = next.handle;
  }
  queue_->callback(queue_->userData, reinterpret_cast<AudioQueueRef>(queue_->handle), buffer);
  return true;
}

bool Queue::reportRunning(bool running) {
  if (!queue_) return false;
  {
    const auto world = fake::world();
    std::lock_guard lock(world->mutex);
    if (queue_->state.disposed) return false;
    queue_->state.running = running;
  }
  if (queue_->listener) {
    queue_->listener(queue_->listenerData, reinterpret_cast<AudioQueueRef>(queue_->handle),
                     kAudioQueueProperty_IsRunning);
  }
  return true;
}

void Queue::setSampleTime(double sampleTime) {
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  if (queue_) queue_->state.sampleTime = sampleTime;
}

Queue queue(int id) {
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  const size_t count = world->queues.size();
  const size_t index = id == 0 ? count : size_t(id);
  if (index >= 1 && index <= count) return Queue(world->queues[index - 1]);
  ADD_FAILURE() << "there is no queue q=" << (id ? std::to_string(id) : "(last)") << " in this test";
  return Queue(nullptr);
}

Queue lastQueue() { return queue(0); }

}  // namespace fake

namespace {

using fake::FakeQueue;

// One call on a queue: finds it in the current test and holds the world's mutex meanwhile.
struct QueueCall {
  explicit QueueCall(AudioQueueRef handle)
      : world(fake::world()), lock(world->mutex), queue(fake::World::find(world->queues, handle)) {}

  // Records "function q=N details"; a disposed queue refuses the call, an unknown handle without a line.
  OSStatus record(const char* function, const std::string& details = "", OSStatus refusal = noErr) {
    if (!queue) return kAudioQueueErr_InvalidQueue;
    if (queue->state.disposed) refusal = kAudioQueueErr_InvalidQueue;
    return world->record(function, function + (" q=" + std::to_string(queue->state.id)) + details, refusal);
  }

  std::shared_ptr<fake::World> world;
  std::lock_guard<std::mutex> lock;
  std::shared_ptr<FakeQueue> queue;
};

}  // namespace

OSStatus AudioQueueNewOutput(const AudioStreamBasicDescription* inFormat, AudioQueueOutputCallback inCallbackProc,
                             void* inUserData, void*, void*, uint32_t, AudioQueueRef* outAQ) {
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  if (OSStatus status = world->record("AudioQueueNewOutput", "AudioQueueNewOutput")) return status;
  auto queue = std::make_shared<FakeQueue>();
  queue->handle = fake::newHandle();
  queue->callback = inCallbackProc;
  queue->userData = inUserData;
  queue->state.id = int(world->queues.size()) + 1;
  queue->state.format = *inFormat;
  world->queues.push_back(queue);
  *outAQ = reinterpret_cast<AudioQueueRef>(queue->handle);
  return noErr;
}

OSStatus AudioQueueAllocateBuffer(AudioQueueRef inAQ, uint32_t inBufferByteSize, AudioQueueBufferRef* outBuffer) {
  QueueCall call(inAQ);
  if (OSStatus status = call.record("AudioQueueAllocateBuffer")) return status;
  call.queue->memory.push_back(std::make_unique<uint8_t[]>(inBufferByteSize));
  call.queue->buffers.push_back(
      std::make_unique<AudioQueueBuffer>(AudioQueueBuffer{inBufferByteSize, call.queue->memory.back().get(), 0}));
  *outBuffer = call.queue->buffers.back().get();
  return noErr;
}

OSStatus AudioQueueEnqueueBuffer(AudioQueueRef inAQ, AudioQueueBufferRef inBuffer, uint32_t inNumPacketDescs,
                                 const AudioStreamPacketDescription* inPacketDescs) {
  QueueCall call(inAQ);
  if (OSStatus status = call.record("AudioQueueEnqueueBuffer")) return status;
  const auto* bytes = static_cast<const uint8_t*>(inBuffer->mAudioData);
  call.queue->state.enqueued.push_back(fake::EnqueuedBuffer{
      inBuffer, std::vector<uint8_t>(bytes, bytes + inBuffer->mAudioDataByteSize), inNumPacketDescs,
      std::vector<AudioStreamPacketDescription>(inPacketDescs, inPacketDescs + inNumPacketDescs), false});
  return noErr;
}

OSStatus AudioQueueStart(AudioQueueRef inAQ, const AudioTimeStamp*) {
  QueueCall call(inAQ);
  OSStatus refusal = call.world->session.isInterrupted() ? kAudioSessionErr_Interrupted : noErr;
  if (!refusal && call.world->inBackground.load()) refusal = kAudioSessionErr_InBackground;
  if (OSStatus status = call.record("AudioQueueStart", "", refusal)) return status;
  call.queue->state.started = true;
  call.queue->state.paused = false;
  return noErr;
}

OSStatus AudioQueuePause(AudioQueueRef inAQ) {
  QueueCall call(inAQ);
  if (OSStatus status = call.record("AudioQueuePause")) return status;
  call.queue->state.paused = true;
  return noErr;
}

OSStatus AudioQueueStop(AudioQueueRef inAQ, bool inImmediate) {
  return QueueCall(inAQ).record("AudioQueueStop", " immediate=" + std::to_string(int(inImmediate)));
}

OSStatus AudioQueueDispose(AudioQueueRef inAQ, bool inImmediate) {
  QueueCall call(inAQ);
  if (OSStatus status = call.record("AudioQueueDispose", " immediate=" + std::to_string(int(inImmediate)))) {
    return status;
  }
  call.queue->state.disposed = true;
  return noErr;
}

OSStatus AudioQueueGetCurrentTime(AudioQueueRef inAQ, void*, AudioTimeStamp* outTimeStamp, bool*) {
  QueueCall call(inAQ);
  const OSStatus refusal = call.queue && !call.queue->state.started ? kAudioQueueErr_NotStarted : noErr;
  if (OSStatus status = call.record("AudioQueueGetCurrentTime", "", refusal)) return status;
  *outTimeStamp = AudioTimeStamp{};
  outTimeStamp->mSampleTime = call.queue->state.sampleTime;
  outTimeStamp->mFlags = kAudioTimeStampSampleTimeValid;
  return noErr;
}

OSStatus AudioQueueGetProperty(AudioQueueRef inAQ, AudioQueuePropertyID, void* outData, uint32_t* ioDataSize) {
  QueueCall call(inAQ);
  if (OSStatus status = call.record("AudioQueueGetProperty")) return status;
  *static_cast<uint32_t*>(outData) = call.queue->state.running ? 1 : 0;
  *ioDataSize = sizeof(uint32_t);
  return noErr;
}

OSStatus AudioQueueAddPropertyListener(AudioQueueRef inAQ, AudioQueuePropertyID,
                                       AudioQueuePropertyListenerProc inProc, void* inUserData) {
  QueueCall call(inAQ);
  if (OSStatus status = call.record("AudioQueueAddPropertyListener")) return status;
  call.queue->listener = inProc;
  call.queue->listenerData = inUserData;
  return noErr;
}

OSStatus AudioQueueSetParameter(AudioQueueRef inAQ, AudioQueueParameterID, AudioQueueParameterValue) {
  return QueueCall(inAQ).record("AudioQueueSetParameter");
}
