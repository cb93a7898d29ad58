// Session interruptions pause the sentence under way and their end lets it resume; route changes
// are received and need nothing. Run on the thread that posts the notification.
#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/NotificationCenter.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"

void AudioBufPlayer::audioSessionInterrupted(const Notification& notification) {
  int32_t interruptionType = 0;  // no user info, or no type in it, reads as the end
  if (notification.userInfo) {
    const auto entry = notification.userInfo->find(AVAudioSessionInterruptionTypeKey);
    if (entry != notification.userInfo->end()) interruptionType = int32_t(entry->second);
  }

  std::lock_guard lock(playerStatusMutex);
  if (!hasStatus(PS_ACTIVE)) return;
  if (interruptionType == AVAudioSessionInterruptionTypeBegan) {
    {
      // The notification centre skips a player that has unsubscribed, but not a call already on its
      // way and waiting for the mutex: the request that listened may have ended since, and this one
      // does not listen yet. Held now, it would never hear the end, which passes the player by; if
      // the interruption lasts, this request's first start is refused and it listens then.
      std::lock_guard sessionLock(objectLock);
      if (!isListeningInterruptions) return;
    }
    LOG_DEBUG("AudioSession interruption began");
    setStatus(PS_INTERRUPTED);
    pauseIfNeeded();
    NotifyDelegate_speechPlayerDidPaused(AudioBufPlayerPauseSource_INTERRUPT);
  } else if (interruptionType == AVAudioSessionInterruptionTypeEnded) {
    LOG_DEBUG("AudioSession interruption ended");
    liftHold(PS_INTERRUPTED);
  }
}

void AudioBufPlayer::routeChange(const Notification&) {}
