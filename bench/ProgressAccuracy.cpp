// Progress accuracy: each playProgressChanged is compared, inside the callback, with the frames the
// output queue counts as heard at that moment (AudioQueueGetCounters' framesPlayed). On the manual
// clock the device moves 10 ms period by period, one chunk's worth after each chunk fed once 1 s
// is queued; on the null device it runs in real time.
// The sentence is 9.6 s of PCM 16 kHz.
#include <atomic>
#include <cmath>
#include <mutex>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "BenchPlayer.h"
#include "Corpus.h"
#include "PlayerBenchmarks.h"
#include "Statistics.h"

namespace {

constexpr size_t kChunkBytes = 3200;
constexpr uint32_t kChunkFrames = kChunkBytes / 2;
constexpr size_t kLeadChunks = 10;

struct ErrorLog {
  std::mutex mutex;
  std::vector<double> errors;  // seconds, reported minus heard; guarded by mutex
};

// Errors of every progress report of one sentence; empty when it did not play out.
std::vector<double> ProgressErrors(bool manualClock, std::span<const uint8_t> audio, double seconds) {
  AudioOutputSelect(manualClock ? "manual" : "null");
  // Declared before the player, which may report progress until it is destroyed.
  std::atomic<AudioQueueRef> queue{nullptr};
  ErrorLog log;
  BenchPlayer bench;
  bench.delegate().onProgress = [&](double position) {
    AudioQueueCounters counters;
    if (AudioQueueGetCounters(queue.load(), &counters) != noErr) return;
    std::lock_guard lock(log.mutex);
    log.errors.push_back(position - double(counters.framesPlayed) / kSentenceRate);
  };
  using enum QEN_TTS::Audio::AudioPlayerAudioFormats;
  bool played = bench.playData(audio.first(kChunkBytes), EAudioPlayerAudioFormat_PCM16K) == AudioBufPlayerError_OK;
  queue = bench.queue();
  for (size_t from = kChunkBytes; from < audio.size() && played; from += kChunkBytes) {
    played = bench.append(audio.subspan(from, std::min(kChunkBytes, audio.size() - from)),
                          EAudioPlayerAudioFormat_PCM16K) == AudioBufPlayerError_OK;
    // The clock follows the feeding with a lead of kLeadChunks chunks, far from the run-out point.
    if (manualClock && from >= kLeadChunks * kChunkBytes) AudioOutputManualAdvance(queue, kChunkFrames, nullptr);
  }
  const double deadline = WallSeconds() + seconds * 2;
  while (played && manualClock && !bench.delegate().waitForEnd(std::chrono::seconds(0)) && WallSeconds() < deadline) {
    AudioOutputManualAdvance(queue, kPeriodFrames, nullptr);
  }
  played = played && bench.delegate().waitForEnd(std::chrono::duration<double>(seconds * 2));
  std::lock_guard lock(log.mutex);
  return played ? log.errors : std::vector<double>{};
}

void Report(const std::string& device, const std::vector<double>& errors, double seconds) {
  double sum = 0;
  double worst = 0;
  for (double error : errors) {
    sum += std::abs(error);
    worst = std::max(worst, std::abs(error));
  }
  const std::string figure = errors.empty()
                                 ? "failed"
                                 : Format("mean %.2f ms", 1e3 * sum / double(errors.size())) +
                                       Format(", worst %.2f ms", 1e3 * worst) +
                                       Format(" over %.0f reports", double(errors.size())) +
                                       Format(" (one per %.0f ms of audio)", 1e3 * seconds / double(errors.size()));
  PrintRow("Progress error, " + device, figure, "within one 10 ms period");
}

}  // namespace

void MeasureProgressAccuracy() {
  const std::vector<uint8_t> sentence = LoopedCorpusFile("fox_s16le_16000.pcm", 3);
  const double seconds = double(sentence.size()) / (2 * kSentenceRate);
  Report("manual clock, 10 ms steps", ProgressErrors(true, sentence, seconds), seconds);
  Report("null device, real time", ProgressErrors(false, sentence, seconds), seconds);
}
