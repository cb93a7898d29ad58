// A started player with a delegate that lets a benchmark wait for the end of a sentence and watch
// its progress reports.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <span>

#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"

using QEN_TTS::Audio::AudioPlayerAudioFormats;

// Every benchmarked sentence but the 44.1 kHz MP3 plays at 16 kHz; the null and manual devices
// take 10 ms periods.
constexpr double kSentenceRate = 16000;
constexpr uint32_t kPeriodFrames = 160;

class BenchDelegate : public AudioBufPlayerDelegate {
 public:
  // Runs on the output queue's callback thread with each progress report; set before the sentence.
  std::function<void(double position)> onProgress;

  // Any thread: waits for PlaybackFinished or an error; true only for PlaybackFinished within the
  // timeout.
  bool waitForEnd(std::chrono::duration<double> timeout);
  void forgetEnd();

  void playerWillStartPlayback(AudioBufPlayer*) override {}
  void updatedTotalLength(double length, AudioBufPlayer*) override { received_.store(length); }
  // Seconds of the sentence received so far (the bench plays with offset 0).
  double received() const { return received_.load(); }
  void playProgressChanged(double position, AudioBufPlayer*) override;
  void aboutToEnd(AudioBufPlayer*) override {}
  void PlaybackFinished(AudioBufPlayer*) override;
  void PlayerError(AudioBufPlayerError, AudioBufPlayer*, const std::string&) override;
  void PlayerWasPaused(AudioBufPlayerPauseSource, AudioBufPlayer*) override {}
  void PlayerWasResumed(AudioBufPlayer*) override {}

 private:
  void markEnded(bool finished);

  std::atomic<double> received_{0.0};
  std::mutex mutex_;
  std::condition_variable ended_;
  // --- guarded by mutex_ ---
  bool hasEnded_ = false;
  bool hasFinished_ = false;
};

class BenchPlayer {
 public:
  BenchPlayer();

  AudioBufPlayer& player() { return *player_; }
  BenchDelegate& delegate() { return *delegate_; }
  // The output queue of the sentence under way: the newest of the process, so only while no other
  // player opens one.
  AudioQueueRef queue() const;
  // Seconds of the sentence received but not yet heard, for a stream at sampleRate.
  double secondsAhead(double sampleRate) const;

  AudioBufPlayerError playData(std::span<const uint8_t> chunk, AudioPlayerAudioFormats format);
  AudioBufPlayerError append(std::span<const uint8_t> chunk, AudioPlayerAudioFormats format);
  // Feeds the whole sentence in chunks of `chunkBytes` (waiting whenever every buffer is in flight),
  // then waits for its end; false when it did not end within the timeout.
  bool playSentence(std::span<const uint8_t> audio, AudioPlayerAudioFormats format, size_t chunkBytes,
                    std::chrono::duration<double> timeout);
  // Ends the sentence under way and takes the next one.
  void restart();

 private:
  std::shared_ptr<BenchDelegate> delegate_;
  std::shared_ptr<AudioBufPlayer> player_;
};
