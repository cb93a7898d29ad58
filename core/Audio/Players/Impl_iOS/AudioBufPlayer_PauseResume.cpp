// Keeps the output queue's pause state in step with the two reasons to pause: the client's pause
// (PS_USER_PAUSED) and the system's hold (PS_INTERRUPTED). Caller holds playerStatusMutex.
#include "Audio/Platform/AudioQueue.h"
#include "Audio/Platform/AudioSession.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"

void AudioBufPlayer::pauseIfNeeded() {
  const uint16_t status = playerStatus.load();
  LOG_TRACE("pauseIfNeeded: actuallyPaused = %d, (isPaused = %d, interrupt = %d)", status & PS_QUEUE_PAUSED,
            status & PS_USER_PAUSED, status & PS_INTERRUPTED);
  if ((status & PS_QUEUE_PAUSED) || !(status & (PS_USER_PAUSED | PS_INTERRUPTED))) return;
  // Before the format is known there is no queue: the producer's wait before the first start holds
  // playback instead.
  if (!audioQueue) return;
  const OSStatus paused = AudioQueuePause(audioQueue);
  LOG_TRACE("Queue pause: %d", int(paused));
  setStatus(PS_QUEUE_PAUSED);
  broadcastStatusChange();
}

void AudioBufPlayer::resumeIfNeeded() {
  const uint16_t status = playerStatus.load();
  LOG_TRACE("resumeIfNeeded: actuallyPaused = %d, (isPaused = %d, interruptionPaused = %d)",
            status & PS_QUEUE_PAUSED, status & PS_USER_PAUSED, status & PS_INTERRUPTED);
  if ((status & PS_QUEUE_PAUSED) && !(status & (PS_USER_PAUSED | PS_INTERRUPTED))) {
    if (!audioQueue) {
      // The queue that was paused is gone; nothing is left to restart.
      clearStatus(PS_QUEUE_PAUSED);
    } else if (const OSStatus started = AudioQueueStart(audioQueue, nullptr); started != noErr) {
      setOrResetAVSession(true);
      LOG_ERROR("AudioQueue start errored error: %d (%s)", int(started), FourCCText(started).data());
      if (started == kAudioSessionErr_Interrupted) {
        LOG_ERROR("Can't resume while audio is in interrupt!");
        // Closing the session use may have ended the subscriptions, and with them the interruption's
        // end, which is to try again: the sentence would stay paused until the next resume.
        if (keepListeningForInterruptionEnd() && !AudioSession::sharedInstance().isInterrupted()) {
          // It ended before the player listened again: its notification will not come.
          resumeIfNeeded();
          return;
        }
      } else if (started == kAudioSessionErr_InBackground) {
        LOG_ERROR("Can't switch sentence while in background!");
      } else {
        notifyDelegateOfPlatformError(AudioBufPlayerError_START_PLAYBACK_FAILED, "AudioQueueStart", started);
      }
      // The caller has cleared a reason to wait: every waiter must look at the word again.
      broadcastStatusChange();
      return;
    } else {
      // Past the run-out point the queue was told to play out and stop. If it had done so before
      // the pause, this start runs it again with nothing left to play, and its stop's report may
      // read it running: asked again, the stop comes after this start and ends the sentence.
      if (hasStatus(PS_ENDING)) AudioQueueStop(audioQueue, false);
      clearStatus(PS_QUEUE_PAUSED);
      broadcastStatusChange();
      NotifyDelegate_speechPlayerDidResumed();
    }
  }
  broadcastStatusChange();
}

void AudioBufPlayer::liftHold(uint16_t reasons) {
  // Before an MP3 sentence's format is known there is no queue to pause, so no restart will tell
  // the end of a hold that was told as a pause; it is told here instead, as it is with a queue.
  const bool heldWithoutQueue = hasStatus(PS_USER_PAUSED | PS_INTERRUPTED) && !hasStatus(PS_QUEUE_PAUSED);
  clearStatus(reasons);
  resumeIfNeeded();
  if (heldWithoutQueue && !hasStatus(PS_USER_PAUSED | PS_INTERRUPTED)) NotifyDelegate_speechPlayerDidResumed();
}
