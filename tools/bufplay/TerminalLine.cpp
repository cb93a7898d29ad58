#include "TerminalLine.h"

namespace {
constexpr const char* kEraseLine = "\r\033[K";
}  // namespace

TerminalLine& TerminalLine::instance() {
  static TerminalLine* const terminal = new TerminalLine;
  return *terminal;
}

void TerminalLine::draw(FILE* out, const std::string& text) {
  std::lock_guard lock(mutex_);
  std::fprintf(out, "%s%s", kEraseLine, text.c_str());
  std::fflush(out);
  liveOut_ = out;
  live_ = text;
}

void TerminalLine::clear() {
  std::lock_guard lock(mutex_);
  if (!liveOut_) return;
  std::fputs(kEraseLine, liveOut_);
  std::fflush(liveOut_);
  liveOut_ = nullptr;
  live_.clear();
}

void TerminalLine::printAbove(FILE* stream, std::string_view line) {
  std::lock_guard lock(mutex_);
  if (liveOut_) {
    std::fputs(kEraseLine, liveOut_);
    std::fflush(liveOut_);
  }
  std::fwrite(line.data(), 1, line.size(), stream);
  std::fflush(stream);
  if (liveOut_) {
    std::fputs(live_.c_str(), liveOut_);
    std::fflush(liveOut_);
  }
}
