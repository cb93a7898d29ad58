#include "Diagnostics/qen_log.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>

namespace QEN_TTS {
namespace {
std::atomic<int> g_enabled_level{QEN_LOG_LEVEL_ERROR};
}  // namespace

bool can_log(int level) { return level <= g_enabled_level.load(std::memory_order_relaxed); }

void set_log_level(int level) { g_enabled_level.store(level, std::memory_order_relaxed); }

int log_level() { return g_enabled_level.load(std::memory_order_relaxed); }

std::string get_gmt_time() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[40];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  snprintf(text + length, sizeof text - length, ".%03dZ ", int(millis));
  return text;
}

const char* get_file_name(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

}  // namespace QEN_TTS

std::array<char, 5> FourCCText(int32_t status) {
  const auto bits = uint32_t(status);
  return {char(bits >> 24), char(bits >> 16), char(bits >> 8), char(bits), '\0'};
}
