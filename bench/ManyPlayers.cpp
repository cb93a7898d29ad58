// Many players: 64 players each play a 10 s PCM 16 kHz sentence at once on the null device in real
// time, each fed by its own thread in 3200-byte chunks. CPU is the whole process's over the run, in
// percent of one core. Threads and resident memory are read from /proc/self/status at mid-run; the
// 64 feeding threads and the main thread are the benchmark's, not the player's, and are left out of
// the thread counts: those the players added, and all the library's (render, clock and work-queue
// threads, which earlier benchmarks of the same run may have started).
// Memory per player is the growth of VmRSS from before the players were built, over 64.
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "BenchPlayer.h"
#include "Corpus.h"
#include "PlayerBenchmarks.h"
#include "Statistics.h"

namespace {

constexpr int kPlayers = 64;
constexpr int kSentenceRepeats = 3;  // three times the 3.2 s file: 9.6 s

// A number field of /proc/self/status ("Threads", "VmRSS" in kB); -1 when absent.
long StatusField(const std::string& field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
  }
  return -1;
}

}  // namespace

void MeasureManyPlayers() {
  AudioOutputSelect("null");
  const std::vector<uint8_t> sentence = LoopedCorpusFile("fox_s16le_16000.pcm", kSentenceRepeats);
  const double audioSeconds = double(sentence.size()) / (2 * kSentenceRate);
  const long rssBefore = StatusField("VmRSS");
  const long threadsBefore = StatusField("Threads");

  std::vector<std::unique_ptr<BenchPlayer>> players;
  for (int i = 0; i < kPlayers; ++i) players.push_back(std::make_unique<BenchPlayer>());
  const double cpuBefore = ProcessCpuSeconds();
  const double wallBefore = WallSeconds();
  std::vector<std::thread> feeders;
  std::vector<char> played(kPlayers, 0);
  for (int i = 0; i < kPlayers; ++i) {
    feeders.emplace_back([&, i] {
      played[size_t(i)] = players[size_t(i)]->playSentence(sentence, QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K,
                                                           3200, std::chrono::duration<double>(audioSeconds * 3));
    });
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(audioSeconds / 2));
  const long threadsAll = StatusField("Threads") - 1 - kPlayers;
  const long threadsPlaying = threadsAll + 1 - threadsBefore;
  const long rssPlaying = StatusField("VmRSS");
  for (std::thread& feeder : feeders) feeder.join();
  const double cpu = ProcessCpuSeconds() - cpuBefore;
  const double wall = WallSeconds() - wallBefore;

  int finished = 0;
  for (char ok : played) finished += ok;
  const std::string measure =
      Format("Many players: %.0f", kPlayers) + Format(" x %.1f s PCM 16 kHz, null device", audioSeconds);
  PrintRow(measure + ", CPU",
           Format("%.1f %% of one core", 100.0 * cpu / wall) + Format(" (%.0f", finished) +
               Format(" of %.0f played out)", kPlayers),
           "< 10 %");
  PrintRow(measure + ", threads",
           Format("%.0f added by the players", double(threadsPlaying)) +
               Format(", %.0f of the library's in all", double(threadsAll)),
           "<= 8 in all");
  PrintRow(measure + ", memory", Format("%.0f KB resident per player", double(rssPlaying - rssBefore) / kPlayers),
           "< 300 KB");
}
