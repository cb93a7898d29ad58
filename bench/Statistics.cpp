#include "Statistics.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

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
