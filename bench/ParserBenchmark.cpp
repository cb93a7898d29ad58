// MP3 stream parsing speed, in bytes of stream per second: every good MP3 of the test corpus
// (tags, Info frames and all) is parsed by a fresh parser, fed in chunks of the size given, with
// callbacks that only count. The target is 200 MB/s for chunks of a few KiB; chunks of one byte
// show the cost of a call.
//
// Needs ABP_CORPUS_DIR, like the tests.
#include <benchmark/benchmark.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Audio/Platform/AudioFileStream.h"

namespace {

std::vector<std::vector<uint8_t>> GoodCorpusMp3s() {
  std::ifstream manifest(std::string(ABP_CORPUS_DIR) + "/MANIFEST.tsv");
  std::vector<std::vector<uint8_t>> files;
  std::string line;
  std::getline(manifest, line);  // the header row
  while (std::getline(manifest, line)) {
    const std::string name = line.substr(0, line.find('\t'));
    if (name.size() > 4 && name.substr(name.size() - 4) == ".mp3" && name.rfind("bad_", 0) != 0) {
      std::ifstream in(std::string(ABP_CORPUS_DIR) + "/" + name, std::ios::binary);
      files.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
  }
  return files;
}

void IgnoreProperty(void*, AudioFileStreamID, AudioFileStreamPropertyID, uint32_t*) {}

void CountPackets(void* client, uint32_t, uint32_t packets, const void*, AudioStreamPacketDescription*) {
  *static_cast<uint64_t*>(client) += packets;
}

void BM_ParseCorpus(benchmark::State& state) {
  static const std::vector<std::vector<uint8_t>> files = GoodCorpusMp3s();
  const auto chunk = size_t(state.range(0));
  uint64_t packets = 0;
  int64_t bytes = 0;
  for (auto _ : state) {
    for (const std::vector<uint8_t>& file : files) {
      AudioFileStreamID stream = nullptr;
      AudioFileStreamOpen(&packets, IgnoreProperty, CountPackets, kAudioFileMP3Type, &stream);
      for (size_t from = 0; from < file.size(); from += chunk) {
        const size_t size = std::min(chunk, file.size() - from);
        benchmark::DoNotOptimize(AudioFileStreamParseBytes(stream, uint32_t(size), file.data() + from, 0));
      }
      AudioFileStreamClose(stream);
      bytes += int64_t(file.size());
    }
  }
  state.SetBytesProcessed(bytes);
  state.counters["packets"] = benchmark::Counter(double(packets), benchmark::Counter::kIsRate);
  if (files.empty() || packets == 0) {
    state.SkipWithError("no corpus MP3 found under ABP_CORPUS_DIR");
  }
}

BENCHMARK(BM_ParseCorpus)->Arg(1)->Arg(64)->Arg(1024)->Arg(5120)->Arg(1 << 20);

}  // namespace

BENCHMARK_MAIN();
