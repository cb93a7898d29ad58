// Playing cost: CPU seconds of the whole process per second of audio while one player plays about a
// minute of audio on the null device run 20 times faster than real time (200 ms of audio per 10 ms
// period), fed in chunks as a speech engine would. For MP3 the same bytes are decoded by `mpg123 -q -s FILE > /dev/null` in the same
// run, and the ratio of the two is shown. Each figure is the least of three runs: other work on the
// machine only ever adds CPU time.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "BenchPlayer.h"
#include "Corpus.h"
#include "PlayerBenchmarks.h"
#include "Statistics.h"

namespace {

constexpr double kSpeed = 20.0;
constexpr int kRuns = 3;

// The least of kRuns results of `measure`, failed runs left out (at 20 times real time a busy
// machine can starve the producer of one run); negative when every run failed.
template <typename Measure>
double LeastOfRuns(Measure measure) {
  double least = -1.0;
  for (int run = 0; run < kRuns; ++run) {
    const double result = measure();
    if (result >= 0 && (least < 0 || result < least)) least = result;
  }
  return least;
}

struct LoopedSentence {
  std::string label;
  std::string file;
  double fileSeconds;
  int times;
  AudioPlayerAudioFormats format;
  size_t chunkBytes;
};

// CPU seconds per audio second of the player; negative when the sentence did not play out.
double PlayerCpuPerAudioSecond(const std::vector<uint8_t>& audio, const LoopedSentence& sentence, double seconds) {
  AudioOutputSelect("null", kSpeed);
  BenchPlayer bench;
  const double before = ProcessCpuSeconds();
  const bool played =
      bench.playSentence(audio, sentence.format, sentence.chunkBytes, std::chrono::duration<double>(seconds));
  const double spent = ProcessCpuSeconds() - before;
  return played ? spent / seconds : -1.0;
}

// CPU seconds per audio second of mpg123 decoding the same bytes; negative when it failed.
double Mpg123CpuPerAudioSecond(const std::vector<uint8_t>& audio, double seconds) {
  char path[] = "/tmp/abp-bench-XXXXXX.mp3";
  const int fd = mkstemps(path, 4);
  if (fd < 0) return -1.0;
  const bool written = write(fd, audio.data(), audio.size()) == ssize_t(audio.size());
  close(fd);
  const double before = ChildrenCpuSeconds();
  const int status = written ? std::system(("mpg123 -q -s " + std::string(path) + " > /dev/null").c_str()) : -1;
  const double spent = ChildrenCpuSeconds() - before;
  std::remove(path);
  return status == 0 ? spent / seconds : -1.0;
}

}  // namespace

void MeasurePlayingCost() {
  using enum QEN_TTS::Audio::AudioPlayerAudioFormats;
  const LoopedSentence sentences[] = {
      {"PCM 16 kHz", "fox_s16le_16000.pcm", 3.2049, 19, EAudioPlayerAudioFormat_PCM16K, 3200},
      {"MP3 16 kHz mono 32 kb/s", "fox_m2_16k_cbr32_lame.mp3", 3.3120, 18, EAudioPlayerAudioFormat_MP3, 1024},
      {"MP3 44.1 kHz stereo 128 kb/s", "hello_m1_44k_stereo_cbr128_lame_id3v23_id3v1.mp3", 0.9707, 62,
       EAudioPlayerAudioFormat_MP3, 1024},
  };
  for (const LoopedSentence& sentence : sentences) {
    const std::vector<uint8_t> audio = LoopedCorpusFile(sentence.file, sentence.times);
    const double seconds = sentence.fileSeconds * sentence.times;
    const double player = LeastOfRuns([&] { return PlayerCpuPerAudioSecond(audio, sentence, seconds); });
    const std::string measure = Format("Playing cost, %.0f s of ", seconds) + sentence.label;
    if (player < 0) {
      PrintRow(measure, "failed: the sentence did not play out", "");
      continue;
    }
    std::string figure = Format("%.2f ms CPU per s of audio", player * 1e3);
    if (sentence.format != EAudioPlayerAudioFormat_MP3) {
      PrintRow(measure, figure, "");
      continue;
    }
    const double mpg123 = LeastOfRuns([&] { return Mpg123CpuPerAudioSecond(audio, seconds); });
    figure += mpg123 > 0 ? Format("; mpg123 %.2f ms", mpg123 * 1e3) + Format("; ratio %.2fx", player / mpg123)
                         : "; mpg123 failed";
    PrintRow(measure, figure, "<= 1.2x mpg123");
  }
}
