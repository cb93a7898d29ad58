// The player on a real sound server, fed as a synthesizer feeds it (100 ms chunks, four times faster
// than they play), heard through the sink's monitor, within one period of the output (resampling
// moves a sound's edges). Time is asserted only where a busy machine cannot make it fail.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <future>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "soundserver/SoundServer.h"
#include "unit/RecordingDelegate.h"

namespace sound_server_test {
namespace {

using Clock = std::chrono::steady_clock;
constexpr double kRate = 16000;
constexpr size_t kChunkFrames = 1600;  // 100 ms
// Under a sanitizer a producer at this pace falls behind the first chunk's playback, and the player
// rightly ends its sentence at the run-out point: there it feeds as fast as the player takes it.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr auto kChunkInterval = std::chrono::milliseconds(0);
#else
constexpr auto kChunkInterval = std::chrono::milliseconds(25);
#endif
constexpr double kPeriodSeconds = 0.010;
constexpr int16_t kSilence = 300;   // a sample below this is no sound
constexpr size_t kGapFrames = 160;  // this much silence separates two sounds

std::vector<int16_t> Tone(double hertz, double seconds) {
  std::vector<int16_t> samples(size_t(std::lround(seconds * kRate)));
  for (size_t i = 0; i < samples.size(); ++i) {
    samples[i] = int16_t(std::lround(10000 * std::sin(2 * M_PI * hertz * double(i) / kRate)));
  }
  return samples;
}

struct Sound {
  size_t begin, end;  // recording samples, end past the last loud one
};

std::vector<Sound> Sounds(const std::vector<int16_t>& recording) {
  std::vector<Sound> sounds;
  for (size_t i = 0; i < recording.size(); ++i) {
    if (std::abs(recording[i]) < kSilence) continue;
    if (sounds.empty() || i - sounds.back().end >= kGapFrames) sounds.push_back({i, i + 1});
    sounds.back().end = i + 1;
  }
  return sounds;
}

// Notes when each progress report came. Read after PlaybackFinished, which RecordingDelegate's
// lock orders after every report.
class StampingDelegate : public RecordingDelegate {
 public:
  void playProgressChanged(double position, AudioBufPlayer* player) override {
    progress.emplace_back(Clock::now(), position);
    RecordingDelegate::playProgressChanged(position, player);
  }
  std::vector<std::pair<Clock::time_point, double>> progress;
};

// Plays one sentence as a synthesizer feeds it and waits for its end.
std::shared_ptr<StampingDelegate> Play(AudioBufPlayer& player, const std::vector<int16_t>& samples) {
  auto delegate = std::make_shared<StampingDelegate>();
  const auto began = Clock::now();
  for (size_t at = 0, chunk = 0; at < samples.size(); at += kChunkFrames, ++chunk) {
    std::this_thread::sleep_until(began + chunk * kChunkInterval);  // the synthesizer's pace
    const auto* bytes = reinterpret_cast<const uint8_t*>(samples.data() + at);
    const std::vector<uint8_t> data(bytes, bytes + 2 * std::min(kChunkFrames, samples.size() - at));
    const auto format = QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K;
    EXPECT_EQ(at == 0 ? player.playData(data, format, delegate, 0.0)
                      : player.appendAudioData(data, format, delegate, 0.0),
              AudioBufPlayerError_OK)
        << "chunk " << chunk;
  }
  EXPECT_TRUE(delegate->waitFor("PlaybackFinished"));
  const double held = std::chrono::duration<double>(Clock::now() - began).count();
  EXPECT_EQ(delegate->count("PlayerError"), 0u);
  EXPECT_GE(held, double(samples.size()) / kRate - kPeriodSeconds)
      << "ended before its audio could have been heard: " << testing::PrintToString(delegate->names());
  return delegate;
}

// Heard whole, not necessarily unbroken (a busy server hears gaps); players at once overlap. Where
// one sentence is heard unbroken (three tries), progress is compared with what had been heard.
TEST(SoundServer, EverySentenceIsHeardWholeAndProgressFollowsWhatIsHeard) {
  const SoundServer server;  // before anything sets PortAudio up
  if (!server.started()) GTEST_SKIP() << "no sound server (is pulseaudio installed?), its log: " << server.log();
  ASSERT_EQ(AudioOutputSelect("default"), noErr);
  ASSERT_TRUE(PortAudioOutputExists()) << "PortAudio does not see the sound server";
  const struct {
    const char* name;
    int players, sentences;
    double seconds;
  } crowds[] = {{"one sentence", 1, 1, 2.0}, {"twenty sentences in a row", 1, 20, 0.5}, {"two players", 2, 2, 1.0}};
  for (const auto& crowd : crowds) {
    SCOPED_TRACE(crowd.name);
    const bool measuresProgress = crowd.sentences == 1;
    std::unique_ptr<MonitorRecording> recording;
    std::shared_ptr<StampingDelegate> measured;
    std::vector<Sound> sounds;
    for (int attempt = 0; attempt < (measuresProgress ? 3 : 1) && sounds.size() != 1; ++attempt) {
      recording = std::make_unique<MonitorRecording>();
      ASSERT_TRUE(recording->waitUntilRecording()) << "parec records nothing";
      std::vector<std::future<void>> players;
      for (int p = 0; p < crowd.players; ++p) {
        players.push_back(std::async(std::launch::async, [&, hertz = 440.0 * (p + 1)] {
          auto player = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, false);
          player->setVolume(1.0f);
          player->start();
          for (int i = 0; i < crowd.sentences; ++i) {
            auto delegate = Play(*player, Tone(hertz, crowd.seconds));
            if (measuresProgress) measured = delegate;
          }
        }));
      }
      for (auto& player : players) player.get();
      recording->stop();
      sounds = Sounds(recording->samples());
    }
    double heard = 0;
    for (const Sound& sound : sounds) heard += double(sound.end - sound.begin) / kRecordRate;
    const double slack = double(sounds.size()) * kPeriodSeconds;
    EXPECT_GE(heard, crowd.sentences * crowd.seconds - slack);
    EXPECT_LE(heard, crowd.players * crowd.sentences * crowd.seconds + slack);
    if (!measuresProgress) continue;

    ASSERT_EQ(sounds.size(), 1u) << "one unbroken sound";
    std::vector<double> errors;
    for (const auto& [when, position] : measured->progress) {
      const double listener = (double(recording->samplesBy(when)) - double(sounds[0].begin)) / kRecordRate;
      if (listener > 0 && position < crowd.seconds) errors.push_back(position - listener);
    }
    ASSERT_GE(errors.size(), 10u);
    std::sort(errors.begin(), errors.end());
    const double median = errors[errors.size() / 2];
    // Ahead of the listener breaks the contract; behind is mostly the report's way to the delegate.
    EXPECT_LE(median, kPeriodSeconds) << "from " << errors.front() << " to " << errors.back() << " s";
    EXPECT_GE(median, -3 * kPeriodSeconds);
  }
}

}  // namespace
}  // namespace sound_server_test
