// Volume, pause, resume, start and stop. Each takes playerStatusMutex for its whole run.
#include "Audio/Platform/AudioQueue.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"

void AudioBufPlayer::setVolume(float volume) {
  if (refusesReentry("setVolume")) return;
  std::lock_guard lock(playerStatusMutex);
  _volume.store(volume);
  if (audioQueue) AudioQueueSetParameter(audioQueue, kAudioQueueParam_Volume, this->volume());
}

void AudioBufPlayer::pause() {
  if (refusesReentry("pause")) return;
  std::lock_guard lock(playerStatusMutex);
  setStatus(PS_USER_PAUSED);
  if (hasStatus(PS_ACTIVE)) pauseIfNeeded();
  NotifyDelegate_speechPlayerDidPaused(AudioBufPlayerPauseSource_USER);
}

void AudioBufPlayer::resume() {
  if (refusesReentry("resume")) return;
  std::lock_guard lock(playerStatusMutex);
  if (hasStatus(PS_ACTIVE)) {
    liftHold(PS_USER_PAUSED | PS_INTERRUPTED);
  } else if (hasStatus(PS_USER_PAUSED)) {
    clearStatus(PS_USER_PAUSED);
    NotifyDelegate_speechPlayerDidResumed();
  }
}

void AudioBufPlayer::start() {
  if (refusesReentry("start")) return;
  std::lock_guard lock(playerStatusMutex);
  clearStatus(PS_STOPPED);
  broadcastStatusChange();
}

void AudioBufPlayer::stop() {
  if (refusesReentry("stop")) return;
  std::lock_guard lock(playerStatusMutex);
  resetAudioQueue();
  setPlayerStopped();
  setStatus(PS_STOPPED);
}
