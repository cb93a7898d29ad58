// The player's end-to-end benchmarks: each prints rows of the results table. Run with the names of
// the ones wanted, or none for all.
#include <cstdio>
#include <functional>
#include <map>
#include <string>

#include "PlayerBenchmarks.h"

int main(int argc, char** argv) {
  const std::map<std::string, std::function<void()>> benchmarks = {
      {"latency", MeasureStartLatency},
      {"playing", MeasurePlayingCost},
      {"many", MeasureManyPlayers},
      {"progress", MeasureProgressAccuracy},
  };
  if (argc == 1) {
    for (const auto& name : {"latency", "playing", "many", "progress"}) benchmarks.at(name)();
    return 0;
  }
  for (int i = 1; i < argc; ++i) {
    const auto found = benchmarks.find(argv[i]);
    if (found == benchmarks.end()) {
      std::fprintf(stderr, "unknown benchmark %s (latency, playing, many, progress)\n", argv[i]);
      return 2;
    }
    found->second();
  }
  return 0;
}
