// Lets the player's tests read its private state and call its internal operations the way the
// player itself does (with playerStatusMutex held where the operation expects it).
#pragma once

#include <functional>

#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"

class AudioBufPlayerTestPeer {
 public:
  explicit AudioBufPlayerTestPeer(AudioBufPlayer& player) : p_(player) {}
  explicit AudioBufPlayerTestPeer(const std::shared_ptr<AudioBufPlayer>& player) : p_(*player) {}

  uint16_t status() const { return p_.playerStatus.load(); }
  void setStatus(uint16_t status) { p_.playerStatus.store(status); }
  static int32_t sessionUsageCount() {
    std::lock_guard lock(AudioBufPlayer::classLock());
    return AudioBufPlayer::audioSessionUsageCount;
  }

  OSStatus openAudioQueue(const AudioStreamBasicDescription& description) {
    std::lock_guard lock(p_.playerStatusMutex);
    return p_.openAudioQueueWithDescription(description);
  }
  void setOrResetAVSession(bool reset) { p_.setOrResetAVSession(reset); }
  void notifyDelegateOfError(AudioBufPlayerError error, const std::string& description) {
    p_.notifyDelegateOfError(error, description);
  }
  void notifyPaused(AudioBufPlayerPauseSource source) { p_.NotifyDelegate_speechPlayerDidPaused(source); }
  void notifyResumed() { p_.NotifyDelegate_speechPlayerDidResumed(); }
  void notifyFinished() { p_.NotifyDelegate_speechPlayerDidFinished(); }

  // An MP3 sentence keeps the previous sentence's queue until its own format is known.
  bool queueIsOfRequestUnderWay() {
    std::lock_guard lock(p_.playerStatusMutex);
    return p_.isQueueOfRequestUnderWay(p_.audioQueue);
  }

  AudioQueueRef audioQueue() const { return p_.audioQueue; }
  std::array<bool, AudioBufPlayer::kNumberOfBuffers> freeBuffers() const { return p_.FreeAudioQueueBuffers; }
  uint64_t receivedSamples() const { return p_.receivedSamples.load(); }
  double sampleRate() const { return p_._sampleRate.load(); }
  // As a format found mid-sentence does, before the queue for it replaces the current one.
  void storeStreamRate(double rate) { p_._sampleRate.store(rate); }
  uint64_t samplesPerPacket() const { return p_.SamplesPerPacket; }
  QEN_TTS::Audio::AudioPlayerAudioFormats currentFormat() const { return p_._currentFormat; }
  bool isListeningInterruptions() {
    std::lock_guard lock(p_.objectLock);
    return p_.isListeningInterruptions;
  }

 private:
  AudioBufPlayer& p_;
};
