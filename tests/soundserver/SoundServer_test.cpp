// Plan: the player on a real sound server (SoundServer.h), fed as a synthesizer feeds it (100 ms
// chunks, four times faster than they play), heard through the sink's monitor.
// - The marker sentence (0.3 s at 2000 Hz, 1.4 s at 440 Hz, 0.3 s at 1000 Hz) is heard with as
//   much of its first and last tone as paplay plays of the same data; progress follows what is
//   heard.
// - Twenty sentences in a row each start, play whole and end.
// - Two players at once on the server: every sentence plays to its end.
// Measurements go to standard output. What is asserted is what was heard, within one period of the
// sound output (the server's own resampling moves a sound's edges by a few milliseconds, paplay's
// too), and time only where a busy machine cannot make it fail: no sentence ends before its audio
// could have been heard, and the median progress report is at most a period ahead of what was
// heard (and not far behind it: reports take a while to reach the delegate).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <future>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "soundserver/SoundServer.h"
#include "unit/RecordingDelegate.h"

namespace sound_server_test {
namespace {

using Clock = std::chrono::steady_clock;
constexpr double kRate = 16000;
constexpr size_t kChunkFrames = 1600;                          // 100 ms
// Four times faster than it plays. Under a sanitizer each call is slow enough that a producer at
// this pace falls behind the first chunk's playback, and the player rightly ends its sentence at
// the run-out point; there it feeds as fast as the player takes the audio.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr auto kChunkInterval = std::chrono::milliseconds(0);
#else
constexpr auto kChunkInterval = std::chrono::milliseconds(25);
#endif
constexpr double kPeriodSeconds = 0.010;
constexpr int16_t kSilence = 300;  // a sample below this is no sound
constexpr size_t kGapFrames = 160;  // this much silence separates two sounds

std::vector<int16_t> Tones(const std::vector<std::pair<double, double>>& parts) {  // (Hz, seconds)
  std::vector<int16_t> samples;
  for (const auto& [hertz, seconds] : parts) {
    const size_t count = size_t(std::lround(seconds * kRate));
    for (size_t i = 0; i < count; ++i) {
      samples.push_back(int16_t(std::lround(10000 * std::sin(2 * M_PI * hertz * double(i) / kRate))));
    }
  }
  return samples;
}

struct Sound {
  size_t begin, end;  // recording samples, end past the last loud one
  double seconds() const { return double(end - begin) / kRecordRate; }
};

std::string Lengths(const std::vector<Sound>& sounds) {
  std::string text = "sounds (ms):";
  for (const Sound& sound : sounds) text += " " + std::to_string(std::lround(sound.seconds() * 1e3));
  return text;
}

std::vector<Sound> Sounds(const std::vector<int16_t>& recording) {
  std::vector<Sound> sounds;
  for (size_t i = 0; i < recording.size(); ++i) {
    if (std::abs(recording[i]) < kSilence) continue;
    if (sounds.empty() || i - sounds.back().end >= kGapFrames) {
      sounds.push_back({i, i + 1});
    }
    sounds.back().end = i + 1;
  }
  return sounds;
}

// Seconds of the first and the last tone of a marker sentence heard in `sound`: they end and
// begin where the zero crossings, a few samples apart in them, are first and last as far apart
// as in the 440 Hz middle.
std::pair<double, double> HeadAndTail(const std::vector<int16_t>& recording, const Sound& sound) {
  std::vector<size_t> crossings;
  for (size_t i = sound.begin + 1; i < sound.end; ++i) {
    if ((recording[i - 1] < 0) != (recording[i] < 0)) crossings.push_back(i);
  }
  size_t middleBegin = sound.end, middleEnd = sound.begin;
  for (size_t k = 0; k + 1 < crossings.size(); ++k) {
    if (crossings[k + 1] - crossings[k] > 13) {
      middleBegin = std::min(middleBegin, crossings[k]);
      middleEnd = std::max(middleEnd, crossings[k + 1]);
    }
  }
  return {double(middleBegin - sound.begin) / kRecordRate, double(sound.end - middleEnd) / kRecordRate};
}

class StampingDelegate : public RecordingDelegate {
 public:
  void playProgressChanged(double position, AudioBufPlayer* player) override {
    {
      std::lock_guard lock(mutex_);
      progress_.emplace_back(Clock::now(), position);
    }
    RecordingDelegate::playProgressChanged(position, player);
  }
  void PlaybackFinished(AudioBufPlayer* player) override {
    finished_ = Clock::now();
    RecordingDelegate::PlaybackFinished(player);
  }
  std::vector<std::pair<Clock::time_point, double>> progress() const {
    std::lock_guard lock(mutex_);
    return progress_;
  }
  Clock::time_point finished() const { return finished_; }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<Clock::time_point, double>> progress_;  // guarded by mutex_
  std::atomic<Clock::time_point> finished_{};
};

class SoundServerTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = new SoundServer;
    if (server_->started()) {
      ASSERT_EQ(AudioOutputSelect("default"), noErr);
    }
  }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  void SetUp() override {
    if (!server_->started()) GTEST_SKIP() << "no sound server for this test: " << server_->failure();
    ASSERT_TRUE(PortAudioOutputExists()) << "PortAudio does not see the sound server";
  }

  static std::shared_ptr<AudioBufPlayer> NewPlayer() {
    std::shared_ptr<AudioBufPlayer> player = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, false);
    player->setVolume(1.0f);
    player->start();
    return player;
  }

  struct Sentence {
    Clock::time_point began;
    std::shared_ptr<StampingDelegate> delegate = std::make_shared<StampingDelegate>();
    uint64_t underruns = 0;  // of the queue: a gap there is the player's, elsewhere the server's
    double heldFor() const { return std::chrono::duration<double>(delegate->finished() - began).count(); }
  };

  // Feeds one sentence as a synthesizer would and waits for its end.
  static Sentence Play(AudioBufPlayer& player, const std::vector<int16_t>& samples) {
    Sentence sentence;
    sentence.began = Clock::now();
    for (size_t at = 0, chunk = 0; at < samples.size(); at += kChunkFrames, ++chunk) {
      std::this_thread::sleep_until(sentence.began + chunk * kChunkInterval);  // the synthesizer's pace
      const size_t frames = std::min(kChunkFrames, samples.size() - at);
      const auto* bytes = reinterpret_cast<const uint8_t*>(samples.data() + at);
      const std::vector<uint8_t> data(bytes, bytes + frames * 2);
      const auto format = QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K;
      EXPECT_EQ(at == 0 ? player.playData(data, format, sentence.delegate, 0.0)
                        : player.appendAudioData(data, format, sentence.delegate, 0.0),
                AudioBufPlayerError_OK)
          << "chunk " << chunk;
    }
    EXPECT_TRUE(sentence.delegate->waitFor("PlaybackFinished"));
    AudioQueueCounters counters;
    if (AudioQueueGetCounters(AudioOutputNewestQueue(), &counters) == noErr) sentence.underruns = counters.underruns;
    EXPECT_EQ(sentence.delegate->count("PlayerError"), 0u);
    const double seconds = double(samples.size()) / kRate;
    EXPECT_GE(sentence.heldFor(), seconds - kPeriodSeconds)
        << "ended before its audio could have been heard: " << testing::PrintToString(sentence.delegate->names());
    return sentence;
  }

  static SoundServer* server_;
};
SoundServer* SoundServerTest::server_ = nullptr;

TEST_F(SoundServerTest, TheMarkerSentenceIsHeardWholeAsPaplayHearsItAndProgressFollowsWhatIsHeard) {
  const std::vector<int16_t> marker = Tones({{2000, 0.3}, {440, 1.4}, {1000, 0.3}});
  const std::string raw = server_->folder() + "/marker.raw";
  std::FILE* file = std::fopen(raw.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  std::fwrite(marker.data(), sizeof(int16_t), marker.size(), file);
  std::fclose(file);

  // A machine busy enough breaks the server's sound up at times (the queue not running dry): the
  // measurement wants one unbroken hearing of each, and gets three tries.
  std::unique_ptr<MonitorRecording> heard;
  Sentence sentence;
  std::vector<Sound> sounds;
  auto player = NewPlayer();
  for (int attempt = 0; attempt < 3 && sounds.size() != 2; ++attempt) {
    heard = std::make_unique<MonitorRecording>();
    ASSERT_TRUE(heard->waitUntilRecording()) << "parec records nothing";
    ASSERT_TRUE(RunToEnd({"paplay", "--raw", "--format=s16le", "--rate=16000", "--channels=1", raw}));
    sentence = Play(*player, marker);
    heard->stop();
    sounds = Sounds(heard->samples());
    std::printf("hearing %d: the queue ran dry %llu times; %s\n", attempt + 1,
                static_cast<unsigned long long>(sentence.underruns), Lengths(sounds).c_str());
  }
  ASSERT_EQ(sounds.size(), 2u) << "paplay's sentence, then the player's, each unbroken";
  const MonitorRecording& recording = *heard;
  const auto [paplayHead, paplayTail] = HeadAndTail(recording.samples(), sounds[0]);
  const auto [head, tail] = HeadAndTail(recording.samples(), sounds[1]);
  std::printf("marker heard: paplay head %.1f ms tail %.1f ms length %.1f ms; player head %.1f ms tail %.1f ms "
              "length %.1f ms; PlaybackFinished %.0f ms after playData\n",
              paplayHead * 1e3, paplayTail * 1e3, sounds[0].seconds() * 1e3, head * 1e3, tail * 1e3,
              sounds[1].seconds() * 1e3, sentence.heldFor() * 1e3);
  // paplay's own start costs it a few milliseconds at times: the player may hear more, never less.
  EXPECT_GE(head, paplayHead - kPeriodSeconds);
  EXPECT_GE(tail, paplayTail - kPeriodSeconds);
  EXPECT_NEAR(sounds[1].seconds(), double(marker.size()) / kRate, kPeriodSeconds);

  // Where the listener was when each report came: what the monitor had delivered by then.
  std::vector<double> errors;
  for (const auto& [when, position] : sentence.delegate->progress()) {
    const double heard = (double(recording.samplesBy(when)) - double(sounds[1].begin)) / kRecordRate;
    if (heard > 0 && position < 2.0) errors.push_back(position - heard);
  }
  ASSERT_GE(errors.size(), 10u);
  std::sort(errors.begin(), errors.end());
  const double median = errors[errors.size() / 2];
  std::printf("progress against the heard position over %zu reports: median %.1f ms, from %.1f to %.1f ms\n",
              errors.size(), median * 1e3, errors.front() * 1e3, errors.back() * 1e3);
  // Ahead of the listener breaks the contract; behind is mostly the report's way to the delegate.
  EXPECT_LE(median, kPeriodSeconds);
  EXPECT_GE(median, -3 * kPeriodSeconds);
}

TEST_F(SoundServerTest, TwentySentencesInARowEachPlayWholeAndEnd) {
  constexpr int kSentences = 20;
  const std::vector<int16_t> sentence = Tones({{440, 0.5}});
  MonitorRecording recording;
  ASSERT_TRUE(recording.waitUntilRecording()) << "parec records nothing";
  auto player = NewPlayer();
  double longest = 0;
  uint64_t underruns = 0;
  for (int i = 0; i < kSentences; ++i) {
    const Sentence played = Play(*player, sentence);
    longest = std::max(longest, played.heldFor());
    underruns += played.underruns;
  }
  recording.stop();
  // Whole, not necessarily unbroken: on a machine busy enough, the server hears gaps at times.
  const std::vector<Sound> sounds = Sounds(recording.samples());
  double heard = 0;
  for (const Sound& sound : sounds) heard += sound.seconds();
  EXPECT_NEAR(heard, kSentences * 0.5, double(sounds.size()) * kPeriodSeconds)
      << "the queues ran dry " << underruns << " times; " << Lengths(sounds);
  std::printf("%d sentences of 500 ms: the longest took %.0f ms from playData to PlaybackFinished; heard as %zu "
              "sounds\n", kSentences, longest * 1e3, sounds.size());
}

TEST_F(SoundServerTest, TwoPlayersAtOnceEachPlayTheirSentencesToTheEnd) {
  const std::vector<std::vector<int16_t>> sentences = {Tones({{440, 1.0}}), Tones({{1000, 1.0}})};
  MonitorRecording recording;
  ASSERT_TRUE(recording.waitUntilRecording()) << "parec records nothing";
  std::vector<std::future<std::vector<double>>> players;
  for (const auto& samples : sentences) {
    players.push_back(std::async(std::launch::async, [&samples] {
      auto player = NewPlayer();
      std::vector<double> held;
      for (int i = 0; i < 2; ++i) held.push_back(Play(*player, samples).heldFor());
      return held;
    }));
  }
  for (auto& player : players) {
    for (const double held : player.get()) std::printf("a sentence of 1000 ms took %.0f ms\n", held * 1e3);
  }
  recording.stop();
  const std::vector<Sound> sounds = Sounds(recording.samples());
  double heard = 0;
  for (const Sound& sound : sounds) heard += sound.seconds();
  EXPECT_GE(heard, 2.0 - kPeriodSeconds) << "at least one player's two sentences' worth of sound";
}

}  // namespace
}  // namespace sound_server_test
