#include "Statistics.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>

namespace {
double CpuSeconds(int who) {
  rusage usage{};
  getrusage(who, &usage);
  const auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}
}  // namespace

double WallSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double ProcessCpuSeconds() { return CpuSeconds(RUSAGE_SELF); }

double ChildrenCpuSeconds() { return CpuSeconds(RUSAGE_CHILDREN); }

double ThreadsCpuSeconds(const std::string& name) {
  double milliseconds = 0.0;
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
    std::string comm;
    std::getline(std::ifstream(task.path() / "comm"), comm);
    if (comm != name) continue;
    std::ifstream sched(task.path() / "sched");
    for (std::string line; std::getline(sched, line);) {
      if (line.rfind("se.sum_exec_runtime", 0) == 0) milliseconds += std::stod(line.substr(line.find(':') + 1));
    }
  }
  return milliseconds / 1e3;
}

double ProcessContextSwitches() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return double(usage.ru_nvcsw) + double(usage.ru_nivcsw);
}

double Percentile(std::vector<double> samples, double fraction) {
  if (samples.empty()) return 0.0;
  std::sort(samples.begin(), samples.end());
  const auto rank = size_t(std::ceil(fraction * double(samples.size())));
  return samples[std::clamp<size_t>(rank, 1, samples.size()) - 1];
}

void PrintRow(const std::string& measure, const std::string& figure, const std::string& target) {
  std::printf("| %s | %s | %s |\n", measure.c_str(), figure.c_str(), target.c_str());
  std::fflush(stdout);
}

std::string Format(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}
