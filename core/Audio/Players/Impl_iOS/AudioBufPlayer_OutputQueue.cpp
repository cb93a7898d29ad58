// Creating and disposing of the output queue, and ending a request's status.
// Caller holds playerStatusMutex.
#include "Audio/Platform/AudioQueue.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"

void AudioQueueFillBuffersCallback(void* pSelf, AudioQueueRef inAQ, AudioQueueBufferRef inBuffer);
void AudioQueueIsRunningCb(void* pSelf, AudioQueueRef inAQ, AudioQueuePropertyID inID);

OSStatus AudioBufPlayer::openAudioQueueWithDescription(AudioStreamBasicDescription description) {
  resetAudioQueue();

  AudioQueueRef queue = nullptr;
  OSStatus status =
      AudioQueueNewOutput(&description, AudioQueueFillBuffersCallback, clientData(), nullptr, nullptr, 0, &queue);
  if (status != noErr) {
    LOG_ERROR("Err at %s %d", "-[AudioBufPlayer openAudioQueueWithDescription:]", __LINE__);
    notifyDelegateOfPlatformError(AudioBufPlayerError_FAILED_OPEN_DEVICE, "AudioQueueNewOutput", status);
    return status;
  }
  audioQueue = queue;

  if (volume() >= 0.0f) AudioQueueSetParameter(queue, kAudioQueueParam_Volume, volume());

  // Slots of an earlier queue hold handles of buffers that are gone (their addresses may even come
  // back for this queue's buffers): only buffers of this queue may be in a slot or free.
  FreeAudioQueueBuffers.fill(false);
  audioQueueBuffer.fill(nullptr);
  lostBufferSlots = 0;
  for (size_t i = 0; i < kNumberOfBuffers; ++i) {
    status = AudioQueueAllocateBuffer(queue, kBufferByteSize, &audioQueueBuffer[i]);
    if (status != noErr) {
      audioQueueBuffer[i] = nullptr;
      LOG_ERROR("Err at %s %d", "-[AudioBufPlayer openAudioQueueWithDescription:]", __LINE__);
      notifyDelegateOfPlatformError(AudioBufPlayerError_ALLOC_FAIL, "AudioQueueAllocateBuffer", status);
      break;
    }
    FreeAudioQueueBuffers[i] = true;
  }
  // A change of format mid-request replaces a queue whose buffers may all have been in flight: the
  // producer would wait for one of them to come back, and none ever will.
  clearStatus(PS_WAITING_FOR_BUFFER);

  status = AudioQueueAddPropertyListener(queue, kAudioQueueProperty_IsRunning, AudioQueueIsRunningCb, clientData());
  if (status != noErr) {
    LOG_ERROR("Err at %s %d", "-[AudioBufPlayer openAudioQueueWithDescription:]", __LINE__);
    resetAudioQueue();
    notifyDelegateOfPlatformError(AudioBufPlayerError_FAILED_OPEN_DEVICE, "AudioQueueAddPropertyListener", status);
    return status;
  }
  audioQueueRequest = requestNumber;
  {
    std::lock_guard lock(progressPollMutex);
    progressClock = {queue, requestNumber, description.mSampleRate, receivedAudioLength.load()};
  }
  broadcastStatusChange();
  return status;
}

void AudioBufPlayer::resetAudioQueue() {
  if (AudioQueueRef queue = audioQueue) {
    {
      std::lock_guard lock(progressPollMutex);
      progressClock = {};
    }
    const OSStatus status = AudioQueueDispose(queue, true);
    audioQueue = nullptr;
    setOrResetAVSession(true);
    LOG_DEBUG("audio queue dispose: %d", int(status));
  }
  clearStatus(PS_QUEUE_STARTED);
  broadcastStatusChange();
}

void AudioBufPlayer::setPlayerStopped() {
  LOG_ERROR("Player status = 0 from AudioPropertyFoundForStream");
  clearRequestStatus();
  broadcastStatusChange();
}
