// A speech client in miniature: three sentences (tones standing in for synthesized speech), each
// handed to the player chunk by chunk as an engine would, the next once the last has finished.
//   speak [-v] [OUTPUT]   OUTPUT: "default" (the sound card), "null" or "wav:PATH";
//                         -v: the player's diagnostic lines, on standard error
#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log_control.h"

// The player calls it on its own threads, some while holding its locks: it only records and wakes.
class Listener : public AudioBufPlayerDelegate {
 public:
  bool waitForEnd() {  // true when the sentence finished, false when it failed
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [this] { return outcome_.has_value(); });
    return *std::exchange(outcome_, std::nullopt);
  }
  void PlaybackFinished(AudioBufPlayer*) override { end(true); }
  void PlayerError(AudioBufPlayerError, AudioBufPlayer*, const std::string& description) override {
    std::fprintf(stderr, "speak: %s\n", description.c_str());
    end(false);
  }
  void playerWillStartPlayback(AudioBufPlayer*) override {}
  void updatedTotalLength(double, AudioBufPlayer*) override {}
  void playProgressChanged(double, AudioBufPlayer*) override {}
  void aboutToEnd(AudioBufPlayer*) override {}
  void PlayerWasPaused(AudioBufPlayerPauseSource, AudioBufPlayer*) override {}
  void PlayerWasResumed(AudioBufPlayer*) override {}

 private:
  void end(bool finished) {
    std::lock_guard lock(mutex_);
    outcome_ = finished;
    ended_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable ended_;
  std::optional<bool> outcome_;
};

int main(int argc, char** argv) {
  int arg = 1;
  if (arg < argc && std::string_view(argv[arg]) == "-v") {
    ++arg;
    QEN_TTS::set_log_level(QEN_TTS::QEN_LOG_LEVEL_DEBUG);
    QEN_TTS::set_log_sink(
        [](std::string_view line) { std::fprintf(stderr, "speak: %.*s", int(line.size()), line.data()); });
  }
  if (arg < argc && AudioOutputSelect(argv[arg]) != noErr) {
    std::fprintf(stderr, "speak: no such output: %s\n", argv[arg]);
    return 2;
  }
  constexpr auto kFormat = QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K;
  constexpr size_t kChunk = 3200;  // 0.1 s, as an engine delivers it
  const auto player = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, true);
  const auto listener = std::make_shared<Listener>();
  player->start();
  for (const double pitch : {440.0, 550.0, 660.0}) {
    std::vector<int16_t> sentence(8000);  // half a second at 16 kHz
    for (size_t i = 0; i < sentence.size(); ++i) sentence[i] = int16_t(6000 * std::sin(2 * M_PI * pitch * i / 16000));
    const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(sentence.data()), sentence.size() * 2);
    player->playData(bytes.first(kChunk), kFormat, listener, 0);
    for (size_t at = kChunk; at < bytes.size(); at += kChunk) {
      player->appendAudioData(bytes.subspan(at, std::min(kChunk, bytes.size() - at)), kFormat, listener, 0);
    }
    if (!listener->waitForEnd()) return 1;
  }
  return 0;
}
