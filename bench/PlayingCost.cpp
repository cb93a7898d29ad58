// Playing cost: CPU seconds of the whole process per second of audio while one player plays about a
// minute of audio on the null device run 20 times faster than real time (200 ms of audio per 10 ms
// period), fed in chunks as a speech engine would. For MP3 the same bytes are decoded by
// `mpg123 -q -s FILE > /dev/null` in the same run, and the ratio of the two is shown, also without
// the null output's clock thread, which does what a sound card and its server would do. Each figure
// is the least of three runs: other work on the machine only ever adds CPU time. Beside it, the
// context switches of the process per second of audio in that run (every wake-up of a thread is
// one), and for PCM also at real time, over 9.6 s.
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
// The thread that stands in for the sound card's clock on the null output.
constexpr const char* kClockThread = "audio-clock";

// What playing a sentence cost: CPU seconds and context switches per second of audio; cpu is
// negative when the sentence did not play out.
struct Cost {
  double cpu = -1.0;
  double switches = 0.0;
  double clock = 0.0;  // of cpu, what the null output's clock thread spent (a sound card's work)
};

// The cheapest of kRuns results of `measure`, failed runs left out (at 20 times real time a busy
// machine can starve the producer of one run).
template <typename Measure>
Cost LeastOfRuns(Measure measure) {
  Cost least;
  for (int run = 0; run < kRuns; ++run) {
    const Cost result = measure();
    if (result.cpu >= 0 && (least.cpu < 0 || result.cpu < least.cpu)) least = result;
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

Cost PlayerCostPerAudioSecond(const std::vector<uint8_t>& audio, const LoopedSentence& sentence, double seconds,
                              double speed) {
  AudioOutputSelect("null", speed);
  BenchPlayer bench;
  const double cpuBefore = ProcessCpuSeconds(), switchesBefore = ProcessContextSwitches();
  const double clockBefore = ThreadsCpuSeconds(kClockThread);
  const bool played =
      bench.playSentence(audio, sentence.format, sentence.chunkBytes, std::chrono::duration<double>(seconds));
  const double cpu = ProcessCpuSeconds() - cpuBefore, switches = ProcessContextSwitches() - switchesBefore;
  const double clock = ThreadsCpuSeconds(kClockThread) - clockBefore;
  return played ? Cost{cpu / seconds, switches / seconds, clock / seconds} : Cost{};
}

// CPU seconds per audio second of mpg123 decoding the same bytes; negative when it failed.
Cost Mpg123CostPerAudioSecond(const std::vector<uint8_t>& audio, double seconds) {
  char path[] = "/tmp/abp-bench-XXXXXX.mp3";
  const int fd = mkstemps(path, 4);
  if (fd < 0) return {};
  const bool written = write(fd, audio.data(), audio.size()) == ssize_t(audio.size());
  close(fd);
  const double before = ChildrenCpuSeconds();
  const int status = written ? std::system(("mpg123 -q -s " + std::string(path) + " > /dev/null").c_str()) : -1;
  const double spent = ChildrenCpuSeconds() - before;
  std::remove(path);
  return status == 0 ? Cost{spent / seconds, 0.0} : Cost{};
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
    const Cost player = LeastOfRuns([&] { return PlayerCostPerAudioSecond(audio, sentence, seconds, kSpeed); });
    const std::string measure = Format("Playing cost, %.0f s of ", seconds) + sentence.label;
    if (player.cpu < 0) {
      PrintRow(measure, "failed: the sentence did not play out", "");
      continue;
    }
    std::string figure = Format("%.2f ms CPU per s of audio", player.cpu * 1e3) +
                         Format(" (%.2f ms the null output's clock)", player.clock * 1e3) +
                         Format(", %.0f context switches per s of audio", player.switches);
    if (sentence.format != EAudioPlayerAudioFormat_MP3) {
      PrintRow(measure, figure, "");
      continue;
    }
    const Cost mpg123 = LeastOfRuns([&] { return Mpg123CostPerAudioSecond(audio, seconds); });
    figure += mpg123.cpu > 0 ? Format("; mpg123 %.2f ms", mpg123.cpu * 1e3) +
                                   Format("; ratio %.2fx", player.cpu / mpg123.cpu) +
                                   Format(", %.2fx without the clock", (player.cpu - player.clock) / mpg123.cpu)
                             : "; mpg123 failed";
    PrintRow(measure, figure, "<= 1.2x mpg123");
  }
  const LoopedSentence& pcm = sentences[0];
  const int loops = 3;
  const Cost realTime = PlayerCostPerAudioSecond(LoopedCorpusFile(pcm.file, loops), pcm, pcm.fileSeconds * loops, 1.0);
  PrintRow(Format("Playing cost, %.1f s of ", pcm.fileSeconds * loops) + pcm.label + ", real time",
           realTime.cpu < 0 ? std::string("failed: the sentence did not play out")
                            : Format("%.2f ms CPU per s of audio", realTime.cpu * 1e3) +
                                  Format(" (%.2f ms the null output's clock)", realTime.clock * 1e3) +
                                  Format(", %.0f context switches per s of audio", realTime.switches),
           "");
}
