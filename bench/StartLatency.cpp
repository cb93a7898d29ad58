// Start latency: from the call of playData with a sentence's first chunk to the first frame the
// device consumed. On the manual clock the device takes one 10 ms period right after playData
// returns, so the figure is the player's own cost plus the queue's rendering of one period. On the
// null device (10 ms periods, real time) the first frame is seen by polling the queue's counters
// every 50 us, so the figure includes waiting for the device's next period.
#include <thread>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "BenchPlayer.h"
#include "Corpus.h"
#include "PlayerBenchmarks.h"
#include "Statistics.h"

namespace {

constexpr int kSentences = 200;

bool HasPlayedAFrame(AudioQueueRef queue) {
  AudioQueueCounters counters;
  return AudioQueueGetCounters(queue, &counters) == noErr && counters.framesPlayed > 0;
}

// Seconds from playData to the first consumed frame, per sentence; empty when a sentence failed.
std::vector<double> Latencies(bool manualClock, std::span<const uint8_t> firstChunk, AudioPlayerAudioFormats format) {
  AudioOutputSelect(manualClock ? "manual" : "null");
  BenchPlayer bench;
  std::vector<double> latencies;
  for (int sentence = 0; sentence < kSentences; ++sentence) {
    const double start = WallSeconds();
    if (bench.playData(firstChunk, format) != AudioBufPlayerError_OK) return {};
    const AudioQueueRef queue = bench.queue();
    if (manualClock) {
      AudioOutputManualAdvance(queue, kPeriodFrames, nullptr);
    } else {
      while (!HasPlayedAFrame(queue) && WallSeconds() - start < 1.0) {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
    }
    const double end = WallSeconds();
    if (!HasPlayedAFrame(queue)) return {};
    latencies.push_back(end - start);
    bench.restart();
  }
  return latencies;
}

void Report(const std::string& device, const std::string& format, const std::vector<double>& latencies,
            const std::string& target) {
  const std::string figure = latencies.empty() ? "failed"
                                               : Format("median %.3f ms", Percentile(latencies, 0.5) * 1e3) +
                                                     Format(", p99 %.3f ms", Percentile(latencies, 0.99) * 1e3);
  PrintRow("Start latency, " + device + ", " + format, figure, target);
}

}  // namespace

void MeasureStartLatency() {
  const std::vector<uint8_t> pcm = ReadCorpusFile("fox_s16le_16000.pcm");
  const std::vector<uint8_t> mp3 = ReadCorpusFile("fox_m2_16k_cbr32_lame.mp3");
  const auto pcmChunk = std::span(pcm).first(3200);
  const auto mp3Chunk = std::span(mp3).first(1024);
  using enum QEN_TTS::Audio::AudioPlayerAudioFormats;
  Report("manual clock", "PCM 16 kHz 3200 B", Latencies(true, pcmChunk, EAudioPlayerAudioFormat_PCM16K), "< 1 ms");
  Report("manual clock", "MP3 16 kHz 1 KB", Latencies(true, mp3Chunk, EAudioPlayerAudioFormat_MP3), "< 1 ms");
  Report("null device", "PCM 16 kHz 3200 B", Latencies(false, pcmChunk, EAudioPlayerAudioFormat_PCM16K),
         "< 1 ms + one 10 ms period");
  Report("null device", "MP3 16 kHz 1 KB", Latencies(false, mp3Chunk, EAudioPlayerAudioFormat_MP3),
         "< 1 ms + one 10 ms period");
}
