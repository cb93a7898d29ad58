#include "BenchPlayer.h"

#include <algorithm>
#include <stdexcept>

#include "Audio/Platform/OutputQueue/OutputDevices.h"

bool BenchDelegate::waitForEnd(std::chrono::duration<double> timeout) {
  std::unique_lock lock(mutex_);
  return ended_.wait_for(lock, timeout, [this] { return hasEnded_; }) && hasFinished_;
}

void BenchDelegate::forgetEnd() {
  std::lock_guard lock(mutex_);
  hasEnded_ = false;
  hasFinished_ = false;
}

void BenchDelegate::playProgressChanged(double position, AudioBufPlayer*) {
  if (onProgress) onProgress(position);
}

void BenchDelegate::PlaybackFinished(AudioBufPlayer*) { markEnded(true); }

void BenchDelegate::PlayerError(AudioBufPlayerError, AudioBufPlayer*, const std::string&) { markEnded(false); }

void BenchDelegate::markEnded(bool finished) {
  std::lock_guard lock(mutex_);
  hasEnded_ = true;
  hasFinished_ = finished;
  ended_.notify_all();
}

BenchPlayer::BenchPlayer()
    : delegate_(std::make_shared<BenchDelegate>()),
      player_(AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, false)) {
  if (!player_) throw std::runtime_error("the player could not be built");
  player_->start();
}

AudioQueueRef BenchPlayer::queue() const { return AudioOutputNewestQueue(); }

double BenchPlayer::secondsAhead(double sampleRate) const {
  AudioQueueCounters counters;
  if (AudioQueueGetCounters(queue(), &counters) != noErr) return 0.0;
  return delegate_->received() - double(counters.framesPlayed) / sampleRate;
}

AudioBufPlayerError BenchPlayer::playData(std::span<const uint8_t> chunk, AudioPlayerAudioFormats format) {
  return player_->playData(chunk, format, delegate_, 0.0);
}

AudioBufPlayerError BenchPlayer::append(std::span<const uint8_t> chunk, AudioPlayerAudioFormats format) {
  return player_->appendAudioData(chunk, format, delegate_, 0.0);
}

bool BenchPlayer::playSentence(std::span<const uint8_t> audio, AudioPlayerAudioFormats format, size_t chunkBytes,
                               std::chrono::duration<double> timeout) {
  delegate_->forgetEnd();
  for (size_t from = 0; from < audio.size(); from += chunkBytes) {
    const auto chunk = audio.subspan(from, std::min(chunkBytes, audio.size() - from));
    const AudioBufPlayerError error = from == 0 ? playData(chunk, format) : append(chunk, format);
    if (error != AudioBufPlayerError_OK) return false;
  }
  return delegate_->waitForEnd(timeout);
}

void BenchPlayer::restart() {
  player_->stop();
  player_->start();
}
