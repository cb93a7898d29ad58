// Intake cost, and with it the packer's speed: how long playData and appendAudioData take to accept
// a chunk while queue buffers are free. The player plays through the manual clock; between timed
// calls (untimed) the clock moves until the sentence is one second ahead of the device, far from
// both the full pool and the run-out point.
#include <benchmark/benchmark.h>

#include <chrono>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "BenchPlayer.h"
#include "Corpus.h"

namespace {

using enum QEN_TTS::Audio::AudioPlayerAudioFormats;

struct Feed {
  const char* file;
  AudioPlayerAudioFormats format;
  size_t chunkBytes;
};

const Feed kPcm{"fox_s16le_16000.pcm", EAudioPlayerAudioFormat_PCM16K, 3200};
const Feed kMp3{"fox_m2_16k_cbr32_lame.mp3", EAudioPlayerAudioFormat_MP3, 1024};
constexpr double kLeadSeconds = 1.0;
// One sentence per run, long enough for every timed chunk: 60 loops of either file hold more than
// kLeadSeconds plus kAppends chunks.
constexpr int kLoops = 60;
constexpr int kAppends = 600;

template <typename Call>
double SecondsOf(Call call) {
  const auto start = std::chrono::steady_clock::now();
  const AudioBufPlayerError error = call();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return error == AudioBufPlayerError_OK ? seconds : -1.0;
}

void BM_AppendAudioData(benchmark::State& state, const Feed& feed) {
  AudioOutputSelect("manual");
  const std::vector<uint8_t> audio = LoopedCorpusFile(feed.file, kLoops);
  const auto chunk = [&](size_t index) { return std::span(audio).subspan(index * feed.chunkBytes, feed.chunkBytes); };
  BenchPlayer bench;
  size_t next = 0;
  bench.playData(chunk(next++), feed.format);
  while (bench.secondsAhead(kSentenceRate) < kLeadSeconds) bench.append(chunk(next++), feed.format);
  for (auto _ : state) {
    const double seconds = SecondsOf([&] { return bench.append(chunk(next++), feed.format); });
    if (seconds < 0) {
      state.SkipWithError("appendAudioData refused a chunk");
      break;
    }
    state.SetIterationTime(seconds);
    const double excess = bench.secondsAhead(kSentenceRate) - kLeadSeconds;
    if (excess > 0) AudioOutputManualAdvance(bench.queue(), uint32_t(excess * kSentenceRate), nullptr);
  }
  state.SetBytesProcessed(int64_t(state.iterations() * feed.chunkBytes));
}

void BM_PlayData(benchmark::State& state, const Feed& feed) {
  AudioOutputSelect("manual");
  const std::vector<uint8_t> audio = ReadCorpusFile(feed.file);
  const auto first = std::span(audio).first(feed.chunkBytes);
  BenchPlayer bench;
  for (auto _ : state) {
    const double seconds = SecondsOf([&] { return bench.playData(first, feed.format); });
    if (seconds < 0) {
      state.SkipWithError("playData refused the first chunk");
      break;
    }
    state.SetIterationTime(seconds);
    bench.restart();
  }
  state.SetBytesProcessed(int64_t(state.iterations() * feed.chunkBytes));
}

BENCHMARK_CAPTURE(BM_PlayData, pcm16k_3200B, kPcm)->UseManualTime();
BENCHMARK_CAPTURE(BM_PlayData, mp3_1KB, kMp3)->UseManualTime();
BENCHMARK_CAPTURE(BM_AppendAudioData, pcm16k_3200B, kPcm)->UseManualTime()->Iterations(kAppends);
BENCHMARK_CAPTURE(BM_AppendAudioData, mp3_1KB, kMp3)->UseManualTime()->Iterations(kAppends);

}  // namespace

BENCHMARK_MAIN();
