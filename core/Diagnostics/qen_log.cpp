#include "Diagnostics/qen_log.h"

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <vector>

namespace QEN_TTS {
namespace {
std::atomic<int> g_enabled_level{QEN_LOG_LEVEL_OFF};

// Logging threads read the sink without a lock, so a replaced sink is never destroyed: it may still
// be running on another thread. Hosts install one or two in a process's life.
class SinkRegistry {
 public:
  const LogSink* current() const { return current_.load(std::memory_order_acquire); }
  void install(LogSink sink) {
    std::lock_guard lock(mutex_);
    if (!sink) {
      current_.store(nullptr, std::memory_order_release);
      return;
    }
    installed_.push_back(std::make_unique<const LogSink>(std::move(sink)));
    current_.store(installed_.back().get(), std::memory_order_release);
  }

 private:
  std::atomic<const LogSink*> current_{nullptr};
  std::mutex mutex_;
  std::vector<std::unique_ptr<const LogSink>> installed_;  // guarded by mutex_
};
// Never destroyed: threads of the platform may log while the process exits.
SinkRegistry& Sinks() {
  static SinkRegistry* const sinks = new SinkRegistry;
  return *sinks;
}
}  // namespace

bool can_log(int level) { return level <= g_enabled_level.load(std::memory_order_relaxed); }

void set_log_level(int level) { g_enabled_level.store(level, std::memory_order_relaxed); }

int log_level() { return g_enabled_level.load(std::memory_order_relaxed); }

void set_log_sink(LogSink sink) { Sinks().install(std::move(sink)); }

void write_log_line(const char* format, ...) {
  char inPlace[512];
  std::vector<char> large;
  char* text = inPlace;
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(inPlace, sizeof inPlace, format, arguments);
  va_end(arguments);
  if (length >= int(sizeof inPlace)) {
    large.resize(size_t(length) + 1);
    std::vsnprintf(large.data(), large.size(), format, again);
    text = large.data();
  }
  va_end(again);
  if (length < 0) return;  // a failing write is ignored, and so is a line that cannot be formatted
  if (const LogSink* sink = Sinks().current()) {
    (*sink)(std::string_view(text, size_t(length)));
  } else {
    std::fwrite(text, 1, size_t(length), stderr);
  }
}

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
