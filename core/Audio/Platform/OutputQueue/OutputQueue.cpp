// The API side of OutputQueue: each operation changes the state under mutex_ and asks for a render
// pass (OutputQueueRender.cpp), which renders and hands the callbacks to the delivery
// (OutputQueueDelivery.cpp).
#include "Audio/Platform/OutputQueue/OutputQueue.h"

#include <algorithm>
#include <chrono>
#include <system_error>

#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/Application.h"
#include "Audio/Platform/OutputQueue/BufferHandleArena.h"
#include "Audio/Platform/OutputQueue/ManualDevice.h"
#include "Audio/Platform/OutputQueue/QueueRegistry.h"
#include "Audio/Platform/OutputQueue/RenderEngine.h"

namespace {
// Room for the render pass to be late: a second of audio, and at least this many periods of the
// sound output. A pass fills the ring and the next comes when it has fallen to its low-water mark
// (lowWaterFrames), so that a queue's render thread wakes a few times a second of audio, not once
// a period or once a buffer.
constexpr uint32_t kRingMilliseconds = 1000;
constexpr size_t kRingPeriods = 8;
// Pauses and immediate stops fade out over this long, resumes fade in.
constexpr uint32_t kFadeMilliseconds = 5;
// Limits that keep a misbehaving client from growing a queue without end.
constexpr uint32_t kMaxBufferBytes = 4u << 20;
constexpr size_t kMaxBuffers = 4096;
constexpr size_t kMaxListeners = 32;

int64_t steadyNanos() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}
}  // namespace

std::shared_ptr<OutputQueue> OutputQueue::create(AudioQueueRef handle, const AudioStreamBasicDescription& format,
                                                 AudioQueueOutputCallback callback, void* userData,
                                                 OSStatus* status) {
  std::unique_ptr<OutputDevice> device = OpenOutputDevice(uint32_t(format.mSampleRate), format.mChannelsPerFrame, status);
  if (!device) {
    return nullptr;
  }
  std::shared_ptr<OutputQueue> queue(new OutputQueue(handle, format, callback, userData, std::move(device), status));
  if (*status != noErr) {
    return nullptr;
  }
  try {
    RenderEngine::instance();  // its threads start here, never inside the sound output's callback
  } catch (const std::system_error&) {
    *status = kAudioQueueErr_OutOfMemory;
    return nullptr;
  }
  queue->keepAlive_ = queue;
  return queue;
}

OutputQueue::OutputQueue(AudioQueueRef handle, const AudioStreamBasicDescription& format,
                         AudioQueueOutputCallback callback, void* userData, std::unique_ptr<OutputDevice> device,
                         OSStatus* status)
    : handle_(handle),
      callback_(callback),
      userData_(userData),
      packetized_(format.mFormatID == kAudioFormatMPEGLayer3),
      streamRate_(uint32_t(format.mSampleRate)),
      outputRate_(device->sampleRate()),
      ring_(std::max({size_t(outputRate_) * kRingMilliseconds / 1000, kRingPeriods * device->periodFrames(), size_t(2048)}),
            format.mChannelsPerFrame),
      playout_(ring_, outputRate_ * kFadeMilliseconds / 1000, *this),
      renderer_(format, outputRate_, status),
      device_(std::move(device)) {}

OutputQueue::~OutputQueue() {
  device_.reset();
  for (auto& [header, record] : buffers_) {
    header->~AudioQueueBuffer();
    BufferHandleArena::instance().release(header);
  }
  if (disposed_) {
    QueueRegistry::instance().released();
  }
}

OSStatus OutputQueue::allocateBuffer(uint32_t size, AudioQueueBufferRef* outBuffer) {
  if (size == 0 || size > kMaxBufferBytes) {
    return kAudioQueueErr_InvalidParameter;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (disposed_) {
    return kAudioQueueErr_InvalidQueue;
  }
  if (buffers_.size() >= kMaxBuffers) {
    return kAudioQueueErr_OutOfMemory;
  }
  auto record = std::make_unique<BufferRecord>();
  std::unique_ptr<uint8_t[]> bytes(new uint8_t[size]());
  void* slot = BufferHandleArena::instance().allocate();
  if (slot == nullptr) {
    return kAudioQueueErr_OutOfMemory;
  }
  auto* header = new (slot) AudioQueueBuffer{size, bytes.get(), 0};
  record->header = header;
  record->bytes = std::move(bytes);
  try {
    buffers_.emplace(header, std::move(record));
  } catch (const std::bad_alloc&) {
    BufferHandleArena::instance().release(slot);
    throw;
  }
  *outBuffer = header;
  return noErr;
}

OSStatus OutputQueue::enqueue(AudioQueueBufferRef buffer, uint32_t packetCount,
                              const AudioStreamPacketDescription* packets) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (disposed_) {
    return kAudioQueueErr_InvalidQueue;
  }
  if (deviceLost()) {
    return kAudioQueueErr_DeviceFailed;
  }
  const auto found = buffers_.find(buffer);  // by address only: a foreign handle is never read
  if (found == buffers_.end()) {
    return kAudioQueueErr_InvalidBuffer;
  }
  BufferRecord& record = *found->second;
  if (record.enqueued) {
    return kAudioQueueErr_BufferInQueue;
  }
  const uint32_t size = buffer->mAudioDataByteSize;
  if (size == 0) {
    return kAudioQueueErr_BufferEmpty;
  }
  if (size > buffer->mAudioDataBytesCapacity) {
    return kAudioQueueErr_InvalidParameter;
  }
  if (packetized_ != (packetCount > 0) || (packetCount > 0 && packets == nullptr) || packetCount > size) {
    return kAudioQueueErr_InvalidParameter;
  }
  for (uint32_t i = 0; i < packetCount; ++i) {
    const AudioStreamPacketDescription& packet = packets[i];
    if (packet.mStartOffset < 0 || packet.mDataByteSize == 0 || uint64_t(packet.mStartOffset) > size ||
        packet.mDataByteSize > size - uint64_t(packet.mStartOffset)) {
      return kAudioQueueErr_InvalidParameter;
    }
  }
  record.packets.assign(packets, packets + packetCount);
  if (draining_) {
    addToDrain(record);
  } else {
    entries_.push_back(Entry{&record});
  }
  record.byteSize = size;
  record.enqueued = true;
  // A pass busy with earlier buffers finds this one when the ring has room for it, and so does the
  // pass that comes at the low-water mark: asking for a pass for every buffer would wake the render
  // thread once a buffer.
  if (renderWantsEntries_ && ring_.writePosition() - ring_.readPosition() <= lowWaterFrames()) {
    renderWantsEntries_ = false;
    requestRender();
  }
  return noErr;
}

OSStatus OutputQueue::start() {
  // The session is asked before mutex_ is taken: it has locks of its own.
  if (AudioSession::sharedInstance().isInterrupted()) {
    return kAudioSessionErr_Interrupted;
  }
  if (Application::sharedApplication().isInBackground()) {
    return kAudioSessionErr_InBackground;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (disposed_) {
    return kAudioQueueErr_InvalidQueue;
  }
  if (deviceLost()) {
    return kAudioQueueErr_DeviceFailed;
  }
  if (!deviceStarted_) {
    if (device_->start(playout_) != noErr) {
      return kAudioQueueErr_DeviceFailed;
    }
    deviceStarted_ = true;
  }
  if (!running_) {
    running_ = true;
    ++run_;
    playout_.endAt(Playout::kNoEnd);  // a finished drain's end, kept until now
    pushEvent(Event{nullptr});
    if (firstStartNanos_ == 0) {
      firstStartNanos_ = steadyNanos();
    }
  }
  paused_ = false;
  publishControl();
  requestRender();
  return noErr;
}

OSStatus OutputQueue::pause() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (disposed_) {
    return kAudioQueueErr_InvalidQueue;
  }
  paused_ = running_;
  publishControl();
  return noErr;
}

OSStatus OutputQueue::stop(bool immediate) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (disposed_) {
    return kAudioQueueErr_InvalidQueue;
  }
  if (!immediate) {
    if (running_ && !draining_) {
      draining_ = true;
      entries_.push_back(Entry{nullptr});
      requestRender();
    }
    return noErr;
  }
  stopNow();
  return noErr;
}

void OutputQueue::stopNow() {
  // The render pass may be reading one of these buffers right now: their callbacks are held until
  // it carries out the stop, and it drops what it rendered of them then.
  ++stopsRequested_;
  for (const Entry& entry : entries_) {
    if (entry.record != nullptr) {
      pushEvent(Event{entry.record});
    }
  }
  entries_.clear();
  rendered_ = 0;
  draining_ = false;
  if (running_) {
    running_ = false;
    pushEvent(Event{nullptr});
  }
  paused_ = false;
  publishControl();
  requestRender();
}

OSStatus OutputQueue::loseDevice() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (disposed_) {
    return kAudioQueueErr_InvalidQueue;
  }
  if (deviceStarted_) {
    device_->stop();
  }
  playout_.lost();  // as the sound output reports it
  return noErr;
}

void OutputQueue::dispose() {
  std::lock_guard<std::mutex> lock(mutex_);
  disposed_ = true;
  publishControl();
  // Audio that still plays is cut now. Otherwise the sound output may still hold the end of a
  // finished drain; it plays out when the queue is released.
  if (deviceStarted_ && running_) {
    device_->stop();  // the sound output never waits for this queue's locks or callbacks
  }
  settled_.notify_all();
  requestRender();  // the pass retires the render job
}

OSStatus OutputQueue::currentTime(AudioTimeStamp* outTime) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (disposed_) {
    return kAudioQueueErr_InvalidQueue;
  }
  if (firstStartNanos_ == 0) {
    return kAudioQueueErr_NotStarted;
  }
  *outTime = AudioTimeStamp{};
  outTime->mSampleTime = double(toStreamFrames(playout_.playedFrames()));
  outTime->mFlags = kAudioTimeStampSampleTimeValid;
  return noErr;
}

OSStatus OutputQueue::isRunning(uint32_t* outRunning) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (disposed_) {
    return kAudioQueueErr_InvalidQueue;
  }
  *outRunning = running_ ? 1 : 0;
  return noErr;
}

OSStatus OutputQueue::addRunningListener(AudioQueuePropertyListenerProc listener, void* userData) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (disposed_) {
    return kAudioQueueErr_InvalidQueue;
  }
  const auto same = [&](const Listener& other) { return other.proc == listener && other.userData == userData; };
  if (std::find_if(listeners_.begin(), listeners_.end(), same) != listeners_.end()) {
    return noErr;
  }
  if (listeners_.size() >= kMaxListeners) {
    return kAudioQueueErr_OutOfMemory;
  }
  listeners_.push_back(Listener{listener, userData});
  return noErr;
}

OSStatus OutputQueue::setVolume(float volume) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (disposed_) {
    return kAudioQueueErr_InvalidQueue;
  }
  playout_.setVolume(volume);
  return noErr;
}

OSStatus OutputQueue::counters(AudioQueueCounters* outCounters) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (disposed_) {
    return kAudioQueueErr_InvalidQueue;
  }
  outCounters->framesPlayed = toStreamFrames(playout_.playedFrames());
  outCounters->underruns = playout_.underruns();
  outCounters->silentFramesInserted = toStreamFrames(playout_.silentFrames());
  const int64_t firstFrame = playout_.firstFrameNanos();
  outCounters->firstFrameLatency = firstFrame != 0 ? double(firstFrame - firstStartNanos_) / 1e9 : -1.0;
  outCounters->undecodablePackets = renderer_.failedPackets();
  return noErr;
}

OSStatus OutputQueue::advanceManualOutput(uint32_t frames, std::vector<int16_t>* heard) {
  auto* manual = dynamic_cast<ManualDevice*>(device_.get());
  if (manual == nullptr) {
    return kAudioQueueErr_InvalidParameter;
  }
  uint32_t done = 0;
  do {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (!isDelivering()) {
        requestRender();
        settled_.wait(lock, [&] { return disposed_ || settled(); });
      }
      if (disposed_) {
        return kAudioQueueErr_InvalidQueue;
      }
    }
    const uint32_t count = std::min(frames - done, manual->periodFrames());
    manual->pull(count, heard);
    done += count;
  } while (done < frames);
  return noErr;
}

void OutputQueue::addToDrain(BufferRecord& record) {
  const auto isEnd = [](const Entry& entry) { return entry.record == nullptr && !entry.cancelled; };
  const auto end = std::find_if(entries_.rbegin(), entries_.rend(), isEnd).base() - 1;
  if (!end->begun) {
    entries_.insert(end, Entry{&record});
    return;
  }
  // The thread has finished the stream at the end; the buffer starts it again. An end already
  // handed to the Playout is taken back unless the output has reached it.
  const bool published = size_t(end - entries_.begin()) < rendered_;
  if (published && !playout_.takeBackEnd(end->end)) {
    entries_.push_back(Entry{&record});  // ran dry: the next start plays it
    return;
  }
  end->cancelled = true;
  entries_.push_back(Entry{&record});
  entries_.push_back(Entry{nullptr});
}

void OutputQueue::pushEvent(Event event) {
  (stopsApplied_ == stopsRequested_ ? events_ : heldEvents_).push_back(event);
}

void OutputQueue::requestRender() {
  ++renderRequests_;
  wantRender();
}

uint64_t OutputQueue::lowWaterFrames() const {
  // With buffers left to render the ring is full and is refilled at half; with all of them in it,
  // the audio ahead is what the client has enqueued, which may be less than half the ring for
  // good, and it is refilled at a quarter, two periods at the least.
  const uint64_t half = ring_.capacity() / 2;
  return renderWantsEntries_ ? std::min(half, std::max(half / 2, uint64_t(2) * device_->periodFrames())) : half;
}

bool OutputQueue::settled() const {
  return renderRequestsDone_ == renderRequests_ && !delivering_ && events_.empty() && heldEvents_.empty();
}

void OutputQueue::publishControl() {
  playout_.publishControl(run_, !disposed_ && running_ && !paused_ && stopsApplied_ == stopsRequested_);
}

uint64_t OutputQueue::toStreamFrames(uint64_t outputFrames) const {
  if (outputRate_ == streamRate_) {
    return outputFrames;
  }
  return uint64_t(double(outputFrames) * streamRate_ / outputRate_);
}
