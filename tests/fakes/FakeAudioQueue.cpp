// The output queue functions of the fake. Each call names its queue by handle; QueueCall finds it
// in the current test and holds its mutex for the whole call, so a check and its effect are one step.
#include <cstdio>
#include <string>

#include "Audio/Platform/AudioQueue.h"
#include "fakes/FakeQueue.h"
#include "fakes/FakeWorld.h"

namespace {

using fake::FakeQueue;
using fake::Outcome;

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

struct QueueCall {
  explicit QueueCall(AudioQueueRef handle) : world(fake::world()), queue(world->findQueue(handle)) {
    if (queue) lock = std::unique_lock(queue->mutex);
    ofPreviousTest = world->isOfPreviousTest(handle);
  }

  // Fails unless the queue is known and not disposed of.
  OSStatus refusal() const { return queue && !queue->state.disposed ? noErr : kAudioQueueErr_InvalidQueue; }

  // Records "function q=N details" and returns the call's status; a call on a handle of a previous
  // test is refused without a line.
  OSStatus record(const char* function, const std::string& details, OSStatus refusal,
                  const std::function<std::string()>& onSuccess = {}) const {
    if (ofPreviousTest) return kAudioQueueErr_InvalidQueue;
    const std::string label = queue ? " q=" + std::to_string(queue->id) : std::string(" q=?");
    const Outcome outcome = world->record(function, function + label + details, refusal, onSuccess);
    return outcome.proceeds() ? noErr : outcome.status;
  }

  std::shared_ptr<fake::World> world;
  std::shared_ptr<FakeQueue> queue;  // null when the handle is unknown
  bool ofPreviousTest;
  std::unique_lock<std::mutex> lock;
};

bool isSupported(const AudioStreamBasicDescription& format) {
  if (format.mSampleRate <= 0 || format.mChannelsPerFrame < 1 || format.mChannelsPerFrame > 2) return false;
  if (format.mFormatID == kAudioFormatMPEGLayer3) return true;
  return format.mFormatID == kAudioFormatLinearPCM && format.mBitsPerChannel == 16 &&
         (format.mFormatFlags & kAudioFormatFlagIsSignedInteger) && !(format.mFormatFlags & kAudioFormatFlagIsFloat) &&
         !(format.mFormatFlags & kAudioFormatFlagIsBigEndian);
}

OSStatus enqueueRefusal(const QueueCall& call, const FakeQueue::Buffer* buffer, uint32_t packetCount,
                        const AudioStreamPacketDescription* descriptions) {
  if (OSStatus refusal = call.refusal()) return refusal;
  if (!buffer) return kAudioQueueErr_InvalidBuffer;
  if (buffer->inQueue) return kAudioQueueErr_BufferInQueue;
  const uint32_t bytes = buffer->header->mAudioDataByteSize;
  if (bytes == 0) return kAudioQueueErr_BufferEmpty;
  if (bytes > buffer->header->mAudioDataBytesCapacity) return kAudioQueueErr_InvalidParameter;
  const bool mp3 = call.queue->state.format.mFormatID == kAudioFormatMPEGLayer3;
  if ((packetCount > 0 && !descriptions) || (mp3 && packetCount == 0)) return kAudioQueueErr_InvalidParameter;
  for (uint32_t i = 0; i < packetCount; ++i) {
    const AudioStreamPacketDescription& packet = descriptions[i];
    if (packet.mStartOffset < 0 || uint64_t(packet.mStartOffset) + packet.mDataByteSize > bytes) {
      return kAudioQueueErr_InvalidParameter;
    }
  }
  return noErr;
}

}  // namespace

OSStatus AudioQueueNewOutput(const AudioStreamBasicDescription* inFormat, AudioQueueOutputCallback inCallbackProc,
                             void* inUserData, void* inCallbackRunLoop, void* inCallbackRunLoopMode, uint32_t,
                             AudioQueueRef* outAQ) {
  const auto world = fake::world();
  std::string line = "AudioQueueNewOutput";
  OSStatus refusal = noErr;
  if (!inFormat || !inCallbackProc || inCallbackRunLoop || inCallbackRunLoopMode || !outAQ) {
    refusal = kAudioQueueErr_InvalidParameter;
  }
  if (inFormat) {
    line += " rate=" + number(inFormat->mSampleRate) + " fmt=" + fake::fourCharacters(inFormat->mFormatID);
    if (!refusal && !isSupported(*inFormat)) refusal = kAudioQueueErr_UnsupportedFormat;
  }
  std::shared_ptr<FakeQueue> created;
  const Outcome outcome = world->record("AudioQueueNewOutput", line, refusal, [&] {
    created = world->addQueueLocked(*inFormat, inCallbackProc, inUserData);
    return " q=" + std::to_string(created->id);
  });
  if (!outcome.proceeds()) return outcome.status;
  *outAQ = created->handle;
  return noErr;
}

OSStatus AudioQueueAllocateBuffer(AudioQueueRef inAQ, uint32_t inBufferByteSize, AudioQueueBufferRef* outBuffer) {
  QueueCall call(inAQ);
  OSStatus refusal = call.refusal();
  if (!refusal && (inBufferByteSize == 0 || !outBuffer)) refusal = kAudioQueueErr_InvalidParameter;
  const OSStatus status = call.record("AudioQueueAllocateBuffer", " size=" + std::to_string(inBufferByteSize), refusal,
                                      [&] { return " buf=" + std::to_string(call.queue->addBuffer(inBufferByteSize).id); });
  if (!status) *outBuffer = call.queue->buffers.back().header.get();
  return status;
}

OSStatus AudioQueueEnqueueBuffer(AudioQueueRef inAQ, AudioQueueBufferRef inBuffer, uint32_t inNumPacketDescs,
                                 const AudioStreamPacketDescription* inPacketDescs) {
  QueueCall call(inAQ);
  FakeQueue::Buffer* buffer = call.refusal() ? nullptr : call.queue->findBuffer(inBuffer);
  const std::string details =
      (buffer ? " buf=" + std::to_string(buffer->id) + " bytes=" + std::to_string(buffer->header->mAudioDataByteSize)
              : std::string(" buf=? bytes=?")) +
      " packets=" + std::to_string(inNumPacketDescs);
  if (OSStatus status = call.record("AudioQueueEnqueueBuffer", details,
                                    enqueueRefusal(call, buffer, inNumPacketDescs, inPacketDescs))) {
    return status;
  }
  const auto* bytes = static_cast<const uint8_t*>(buffer->header->mAudioData);
  buffer->inQueue = true;
  call.queue->state.enqueued.push_back(fake::EnqueuedBuffer{
      inBuffer, std::vector<uint8_t>(bytes, bytes + buffer->header->mAudioDataByteSize), inNumPacketDescs,
      std::vector<AudioStreamPacketDescription>(inPacketDescs, inPacketDescs + inNumPacketDescs), false});
  return noErr;
}

OSStatus AudioQueueStart(AudioQueueRef inAQ, const AudioTimeStamp* inStartTime) {
  QueueCall call(inAQ);
  OSStatus refusal = call.refusal();
  if (!refusal && inStartTime) refusal = kAudioQueueErr_InvalidParameter;
  if (!refusal && call.world->session.isInterrupted()) refusal = kAudioSessionErr_Interrupted;
  if (!refusal && call.world->inBackground.load()) refusal = kAudioSessionErr_InBackground;
  const OSStatus status = call.record("AudioQueueStart", "", refusal);
  if (!status) call.queue->state.started = true;
  if (!status) call.queue->state.paused = false;
  return status;
}

OSStatus AudioQueuePause(AudioQueueRef inAQ) {
  QueueCall call(inAQ);
  const OSStatus status = call.record("AudioQueuePause", "", call.refusal());
  if (!status) call.queue->state.paused = true;
  return status;
}

OSStatus AudioQueueStop(AudioQueueRef inAQ, bool inImmediate) {
  QueueCall call(inAQ);
  return call.record("AudioQueueStop", " immediate=" + std::to_string(int(inImmediate)), call.refusal());
}

OSStatus AudioQueueDispose(AudioQueueRef inAQ, bool inImmediate) {
  QueueCall call(inAQ);
  const OSStatus status = call.record("AudioQueueDispose", " immediate=" + std::to_string(int(inImmediate)),
                                      call.refusal());
  if (!status) call.queue->dispose();
  return status;
}

OSStatus AudioQueueGetCurrentTime(AudioQueueRef inAQ, void* inTimeline, AudioTimeStamp* outTimeStamp,
                                  bool* outTimelineDiscontinuity) {
  QueueCall call(inAQ);
  OSStatus refusal = call.refusal();
  if (!refusal && (inTimeline || outTimelineDiscontinuity || !outTimeStamp)) refusal = kAudioQueueErr_InvalidParameter;
  if (!refusal && !call.queue->state.started) refusal = kAudioQueueErr_NotStarted;
  const OSStatus status = call.record("AudioQueueGetCurrentTime", "", refusal);
  if (status) return status;
  *outTimeStamp = AudioTimeStamp{};
  outTimeStamp->mSampleTime = call.queue->state.sampleTime;
  outTimeStamp->mFlags = kAudioTimeStampSampleTimeValid;
  return noErr;
}

OSStatus AudioQueueGetProperty(AudioQueueRef inAQ, AudioQueuePropertyID inID, void* outData, uint32_t* ioDataSize) {
  QueueCall call(inAQ);
  OSStatus refusal = call.refusal();
  if (!refusal &&
      (inID != kAudioQueueProperty_IsRunning || !outData || !ioDataSize || *ioDataSize < sizeof(uint32_t))) {
    refusal = kAudioQueueErr_InvalidProperty;
  }
  const OSStatus status = call.record("AudioQueueGetProperty", " prop=" + fake::fourCharacters(inID), refusal);
  if (status) return status;
  *static_cast<uint32_t*>(outData) = call.queue->state.running ? 1 : 0;
  *ioDataSize = sizeof(uint32_t);
  return noErr;
}

OSStatus AudioQueueAddPropertyListener(AudioQueueRef inAQ, AudioQueuePropertyID inID,
                                       AudioQueuePropertyListenerProc inProc, void* inUserData) {
  QueueCall call(inAQ);
  OSStatus refusal = call.refusal();
  if (!refusal && inID != kAudioQueueProperty_IsRunning) refusal = kAudioQueueErr_InvalidProperty;
  if (!refusal && !inProc) refusal = kAudioQueueErr_InvalidParameter;
  const OSStatus status = call.record("AudioQueueAddPropertyListener", " prop=" + fake::fourCharacters(inID), refusal);
  if (status) return status;
  call.queue->runningListener = inProc;
  call.queue->runningListenerUserData = inUserData;
  return noErr;
}

OSStatus AudioQueueSetParameter(AudioQueueRef inAQ, AudioQueueParameterID inParamID, AudioQueueParameterValue inValue) {
  QueueCall call(inAQ);
  const bool volume = inParamID == kAudioQueueParam_Volume;
  OSStatus refusal = call.refusal();
  if (!refusal && !volume) refusal = kAudioQueueErr_InvalidParameter;
  const std::string setting =
      volume ? " volume=" + number(inValue) : " param=" + std::to_string(inParamID) + " value=" + number(inValue);
  const OSStatus status = call.record("AudioQueueSetParameter", setting, refusal);
  if (!status) call.queue->state.volume = inValue;
  return status;
}
