// The pool of queue buffers: the producer takes a free one for each packed buffer and waits while
// all are in the queue; played buffers come back a batch at a time (AudioQueueFillBuffersCallback).
#include <cstring>

#include "Audio/Platform/AudioQueue.h"
#include "Audio/Platform/Dispatch.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"

// Runs on the output queue's callback thread, which never holds playerStatusMutex and never waits
// for it: when the lock is free (as it mostly is while the producer waits for this very buffer) the
// buffers go back to the pool at once; otherwise a task of the work queue returns them, so that
// this thread does not wait for the producer, nor wake a second thread when it need not.
void AudioQueueFillBuffersCallback(void* pSelf, AudioQueueRef inAQ, AudioQueueBufferRef inBuffer) {
  std::shared_ptr<AudioBufPlayer> player = AudioBufPlayer::fromClientData(pSelf);
  if (!player) return;
  if (player->notePlayedBuffer(inAQ, inBuffer)) {
    if (player->playerStatusMutex.try_lock()) {
      std::lock_guard lock(player->playerStatusMutex, std::adopt_lock);
      player->returnPlayedBuffers();
    } else {
      dispatch_async(dispatch_get_global_queue(0, 0), [player] {
        std::lock_guard lock(player->playerStatusMutex);
        player->returnPlayedBuffers();
      });
    }
  }
  player->outputPlayProgress(inAQ);
}

bool AudioBufPlayer::notePlayedBuffer(AudioQueueRef queue, AudioQueueBufferRef buffer) {
  std::lock_guard lock(playedBuffersMutex);
  // Noted buffers are there from the first note until a return takes them all: a note that finds
  // none is the one to see to a return.
  const bool first = playedBuffers.empty();
  playedBuffers.emplace_back(queue, buffer);
  return first;
}

void AudioBufPlayer::returnPlayedBuffers() {
  {
    std::lock_guard played(playedBuffersMutex);
    returningBuffers.swap(playedBuffers);
  }
  for (const auto& [queue, buffer] : returningBuffers) AudioQueue_releasedBuffer(queue, buffer);
  returningBuffers.clear();
}

void AudioBufPlayer::enqueData(std::span<const uint8_t> audioData, const AudioStreamPacketDescription* withDescriptions,
                               uint32_t packetNumber) {
  size_t slot = kNumberOfBuffers;
  if (hasStatus(PS_ACTIVE) && audioQueue && !aBufferCanComeBack()) {
    endRequestWithoutBuffers();
    return;
  }
  for (;;) {
    while (hasStatus(PS_WAITING_FOR_BUFFER) && hasStatus(PS_ACTIVE)) waitForStatusChange();
    if (!hasStatus(PS_ACTIVE) || !audioQueue) return;
    for (size_t i = 0; i < kNumberOfBuffers; ++i) {
      if (FreeAudioQueueBuffers[i]) {
        slot = i;
        break;
      }
    }
    if (slot < kNumberOfBuffers) break;
    // Every slot is taken (failed enqueues keep theirs): wait as if the pool were known to be empty.
    waitForStatusChange();
  }
  FreeAudioQueueBuffers[slot] = false;
  size_t stillFree = 0;
  for (size_t i = slot + 1; i < kNumberOfBuffers; ++i) stillFree += FreeAudioQueueBuffers[i];
  if (stillFree == 0) {
    setStatus(PS_WAITING_FOR_BUFFER);
    broadcastStatusChange();
  }

  AudioQueueBufferRef buffer = audioQueueBuffer[slot];
  std::memcpy(buffer->mAudioData, audioData.data(), audioData.size());
  buffer->mAudioDataByteSize = uint32_t(audioData.size());
  const OSStatus status = AudioQueueEnqueueBuffer(audioQueue, buffer, packetNumber, withDescriptions);
  if (status != noErr) {
    LOG_ERROR("AudioQueue enque audio errored error: %d (%s)", int(status), FourCCText(status).data());
    notifyDelegateOfPlatformError(AudioBufPlayerError_QUEUE_FAIL, "AudioQueueEnqueueBuffer", status);
    ++lostBufferSlots;
    if (!aBufferCanComeBack()) endRequestWithoutBuffers();
    return;
  }
  beginPlaying();
}

bool AudioBufPlayer::aBufferCanComeBack() const {
  size_t allocated = 0;
  for (const AudioQueueBufferRef buffer : audioQueueBuffer) allocated += buffer != nullptr;
  return allocated > lostBufferSlots;
}

// A failed enqueue keeps its slot for the rest of the request; once no slot is left (or none could
// be allocated), waiting for a buffer would wait for ever. The errors have been reported already.
void AudioBufPlayer::endRequestWithoutBuffers() {
  LOG_ERROR("No queue buffer is left to play the sentence: it ends");
  finishRequest();
}

void AudioBufPlayer::AudioQueue_releasedBuffer(AudioQueueRef inAQ, AudioQueueBufferRef inBuffer) {
  if (!isQueueOfRequestUnderWay(inAQ)) return;
  for (size_t i = 0; i < kNumberOfBuffers; ++i) {
    if (audioQueueBuffer[i] == inBuffer) {
      FreeAudioQueueBuffers[i] = true;
      clearStatus(PS_WAITING_FOR_BUFFER);
    }
  }
  broadcastStatusChange();
}
