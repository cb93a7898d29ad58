// Playback requests: the first chunk of a sentence and the chunks appended to it.
//
// Both run on the caller's thread and do all the work of the chunk (parsing, packing, enqueueing)
// with playerStatusMutex held, giving it up only while they wait for a free buffer or for a pause
// to end. Producers take turns: a second feeding thread waits until the first has left, so the
// packing state is never shared and a request never receives audio of the one before.
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"

using namespace QEN_TTS::Audio;

AudioBufPlayerError AudioBufPlayer::playData(std::span<const uint8_t> data, AudioPlayerAudioFormats audioFormat,
                                             const std::shared_ptr<AudioBufPlayerDelegate>& withDelegate,
                                             double audioOffset) {
  if (refusesReentry("playData")) return AudioBufPlayerError_STOPPED;
  AudioBufPlayerError result = AudioBufPlayerError_OK;
  std::lock_guard lock(playerStatusMutex);
  ProducerTurn turn(*this);

  if (hasStatus(PS_STOPPED)) {
    result = AudioBufPlayerError_STOPPED;
  } else if (!hasStatus(PS_ACTIVE)) {
    setReportAudioLenOffset(audioOffset);
    receivedSamples.store(0);
    receivedAudioLength.store(0.0);
    descIndex = 0;
    tmpAudioBuffer.clear();
    if (withDelegate) setDelegate(withDelegate);
    beginRequest();
    _currentFormat = audioFormat;

    const bool played = audioFormat == EAudioPlayerAudioFormat_PCM8K ||
                        audioFormat == EAudioPlayerAudioFormat_PCM16K || audioFormat == EAudioPlayerAudioFormat_MP3;
    if (played) {
      tellDelegateWhileLocked([this](AudioBufPlayerDelegate& delegate) { delegate.playerWillStartPlayback(this); });
    }
    switch (audioFormat) {
      case EAudioPlayerAudioFormat_PCM8K:
        LOG_DEBUG("Stream type PCM8");
        result = initStreamForPCM(8000.0);
        if (result == AudioBufPlayerError_OK) result = receivePCM8KStream(data);
        break;
      case EAudioPlayerAudioFormat_PCM16K:
        LOG_DEBUG("Stream type PCM16");
        result = initStreamForPCM(16000.0);
        if (result == AudioBufPlayerError_OK) result = receivePCM16KStream(data);
        break;
      case EAudioPlayerAudioFormat_MP3:
        LOG_DEBUG("Stream type MP3");
        result = initStreamForAudioStreamFormat(kAudioFileMP3Type);
        if (result == AudioBufPlayerError_OK) result = receiveMP3Stream(data);
        break;
      default:
        result = AudioBufPlayerError_UNSUPPORTED_FORMAT;
        break;
    }
  }
  // A request under way drops the chunk; both checks below still apply to it.

  if (result != AudioBufPlayerError_OK) {
    clearRequestStatus();
    resetAudioQueue();
  }
  if (data.empty()) {
    clearRequestStatus();
    broadcastStatusChange();
    tellDelegateWhileLocked([this](AudioBufPlayerDelegate& delegate) { delegate.PlaybackFinished(this); });
  }
  return result;
}

AudioBufPlayerError AudioBufPlayer::appendAudioData(std::span<const uint8_t> data,
                                                    AudioPlayerAudioFormats audioFormat,
                                                    const std::shared_ptr<AudioBufPlayerDelegate>& withDelegate,
                                                    double audioOffset) {
  LOG_DEBUG("Audio data len: %ld", long(data.size()));
  if (refusesReentry("appendAudioData")) return AudioBufPlayerError_STOPPED;
  std::unique_lock lock(playerStatusMutex);
  ProducerTurn turn(*this);

  if (hasStatus(PS_STOPPED)) return AudioBufPlayerError_STOPPED;
  if (!hasStatus(PS_ACTIVE)) {
    turn.end();
    lock.unlock();
    return playData(data, audioFormat, withDelegate, audioOffset);
  }

  AudioBufPlayerError result;
  if (audioFormat != _currentFormat || hasStatus(PS_ENDING)) {
    result = AudioBufPlayerError_SWITCH_FORMAT;
  } else {
    switch (audioFormat) {
      case EAudioPlayerAudioFormat_PCM8K:
        LOG_DEBUG("Append Stream type PCM8");
        result = receivePCM8KStream(data);
        break;
      case EAudioPlayerAudioFormat_PCM16K:
        LOG_DEBUG("Append Stream type PCM16");
        result = receivePCM16KStream(data);
        break;
      case EAudioPlayerAudioFormat_MP3:
        LOG_DEBUG("Append Stream type MP3");
        result = receiveMP3Stream(data);
        break;
      default:
        result = AudioBufPlayerError_UNSUPPORTED_FORMAT;
        break;
    }
  }
  if (result == AudioBufPlayerError_FAILED_PARSE_STREAM && receivedSamples.load() == 0) {
    // The stream failed before any audio came of it (the client has had no updatedTotalLength):
    // nothing was queued that could play out and end the sentence, so it ends here with its error,
    // as a rejected first chunk does, and gives back its queue.
    LOG_ERROR("The sentence's stream failed before any of its audio: it ends");
    endRequest();
  }
  return result;
}
