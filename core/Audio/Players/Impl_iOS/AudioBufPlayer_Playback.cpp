// Starting the output queue after a request's first buffer, and following its running state to the
// end of the sentence. The queue's callbacks only post tasks; the tasks take playerStatusMutex and
// ignore a queue that is no longer the current one.
#include "Audio/Platform/Application.h"
#include "Audio/Platform/AudioQueue.h"
#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/Dispatch.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"

namespace {
// The shared session stays active this long after a sentence, so that the next one, which usually
// follows at once, does not pay for a deactivation and reactivation.
constexpr double kSessionHoldAfterPlayback = 0.8;
}  // namespace

// Caller holds playerStatusMutex; may wait on the condition while a pause or interruption holds.
void AudioBufPlayer::beginPlaying() {
  if (hasStatus(PS_QUEUE_STARTED)) return;
  for (;;) {
    while (hasStatus(PS_USER_PAUSED | PS_INTERRUPTED) && hasStatus(PS_ACTIVE)) {
      // The hold may have outlived the session use that listened for its end: a change of stream
      // format mid-sentence replaces the queue and closes its use. Listening again, the end can no
      // longer pass by; if it already has, nothing else would lift the hold. A hold for the
      // background is the client's to lift: retrying there would only be refused again, at once.
      if (hasStatus(PS_INTERRUPTED) && keepListeningForInterruptionEnd() &&
          !AudioSession::sharedInstance().isInterrupted() && !Application::sharedApplication().isInBackground()) {
        liftHold(PS_INTERRUPTED);
        continue;
      }
      waitForStatusChange();
    }
    if (!hasStatus(PS_ACTIVE)) return;
    setOrResetAVSession(false);
    const OSStatus status = AudioQueueStart(audioQueue, nullptr);
    if (status == noErr) break;

    setOrResetAVSession(true);
    LOG_ERROR("AudioQueue start errored error: %d (%s)", int(status), FourCCText(status).data());
    if (status == kAudioSessionErr_Interrupted) {
      LOG_ERROR("Can't switch sentence while audio is in interrupt!");
      setStatus(PS_QUEUE_PAUSED | PS_INTERRUPTED);
      const bool listening = keepListeningForInterruptionEnd();
      NotifyDelegate_speechPlayerDidPaused(AudioBufPlayerPauseSource_INTERRUPT);
      if (listening && !AudioSession::sharedInstance().isInterrupted()) {
        // It ended before the player listened again: its notification will not come.
        clearStatus(PS_INTERRUPTED);
        resumeIfNeeded();
      }
    } else if (status == kAudioSessionErr_InBackground) {
      LOG_ERROR("Can't begin playback while in background!");
      setStatus(PS_QUEUE_PAUSED | PS_INTERRUPTED);
      NotifyDelegate_speechPlayerDidPaused(AudioBufPlayerPauseSource_BACKGROUND);
    } else {
      notifyDelegateOfPlatformError(AudioBufPlayerError_START_PLAYBACK_FAILED, "AudioQueueStart", status);
      return;
    }
  }
  setStatus(PS_QUEUE_STARTED);
  broadcastStatusChange();
}

// Runs on the output queue's callback thread; never blocks on playerStatusMutex.
void AudioQueueIsRunningCb(void* pSelf, AudioQueueRef inAQ, AudioQueuePropertyID) {
  std::shared_ptr<AudioBufPlayer> player = AudioBufPlayer::fromClientData(pSelf);
  if (!player) return;
  uint32_t running = 0;
  uint32_t size = sizeof running;
  const OSStatus status = AudioQueueGetProperty(inAQ, kAudioQueueProperty_IsRunning, &running, &size);
  if (status != noErr) {
    // A queue whose state cannot be read cannot be trusted to play on, and if this change was its
    // stop, no other report will come: ending the sentence early beats leaving it without an end.
    LOG_DEBUG("AudioQueueGetProperty(IsRunning) returned: %d taken as stopped", int(status));
  }
  const bool isRunning = status == noErr && running != 0;
  dispatch_async(dispatch_get_global_queue(0, 0), [player, inAQ, isRunning] {
    std::lock_guard lock(player->playerStatusMutex);
    player->AudioQueue_newRunningState(inAQ, isRunning);
  });
}

// Closing the refused start's session use ended the subscriptions, but only the end of the
// interruption can lift this hold: a managing player stays subscribed until its next use closes.
// Returns whether the player listens.
bool AudioBufPlayer::keepListeningForInterruptionEnd() {
  std::lock_guard lock(objectLock);
  if (!AVSessionManagmentEnabled()) return false;
  if (!isListeningInterruptions) {
    isListeningInterruptions = true;
    subscribeToSessionNotifications();
  }
  return true;
}

// Running-state task; caller holds playerStatusMutex.
void AudioBufPlayer::AudioQueue_newRunningState(AudioQueueRef inAQ, bool isRunning) {
  // A change that comes during a pause is taken once the pause is lifted. A restart that fails
  // leaves the queue paused, but a stopped queue plays nothing more (its sound output may be gone
  // for good): waiting on would leave the sentence without an end.
  while (hasStatus(PS_QUEUE_PAUSED) && hasStatus(PS_USER_PAUSED | PS_INTERRUPTED)) waitForStatusChange();
  // A queue left playing out by a request that has ended stops without a word: that request has had
  // its end, and the next one, which may keep the queue until its own opens, is not over.
  if (!isQueueOfRequestUnderWay(inAQ)) return;
  if (isRunning) {
    LOG_DEBUG("Audio queue started");
    return;
  }
  LOG_DEBUG("Audio queue stopped");
  dispatch_async(dispatch_get_global_queue(0, 0), [self = shared_from_this(), inAQ] {
    std::lock_guard lock(self->playerStatusMutex);
    self->endPlayback(inAQ);
  });
  broadcastStatusChange();
}

// End-of-playback task; caller holds playerStatusMutex.
void AudioBufPlayer::endPlayback(AudioQueueRef stoppedQueue) {
  // The request may have ended, and another begun, since the queue stopped; that one is not finished.
  if (!isQueueOfRequestUnderWay(stoppedQueue)) return;
  const bool holdSession = _AVSessionManagmentEnabled.load();
  if (holdSession) SetAudioSessionActivationStatus(true, true);
  finishRequest();
  if (holdSession) {
    dispatch_async(dispatch_get_global_queue(0, 0), [self = shared_from_this()] {
      sleepForTimeInterval(kSessionHoldAfterPlayback);
      SetAudioSessionActivationStatus(false, self->AVSessionManagmentEnabled());
    });
  }
}

void AudioBufPlayer::endRequest() {
  resetAudioQueue();
  setPlayerStopped();
}

void AudioBufPlayer::finishRequest() {
  endRequest();
  NotifyDelegate_speechPlayerDidFinished();
}
