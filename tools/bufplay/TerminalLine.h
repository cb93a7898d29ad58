// The live line at the bottom of the terminal, redrawn in place, and the whole lines printed above
// it: bufplay's own messages and the player's diagnostic lines, which arrive on the player's
// threads. Every write to the terminal goes through here, so that none lands in the middle of the
// live line. Any thread; one mutex orders the writes.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

class TerminalLine {
 public:
  // The process's one terminal. Never destroyed: the player's threads may log while bufplay exits.
  static TerminalLine& instance();

  // Shows text (no newline) as the live line on out, in place of the one shown.
  void draw(FILE* out, const std::string& text);
  // Erases the live line.
  void clear();
  // Writes line (ending in a newline) to stream; a live line is erased first and drawn again below.
  void printAbove(FILE* stream, std::string_view line);

 private:
  TerminalLine() = default;

  std::mutex mutex_;
  FILE* liveOut_ = nullptr;  // where the live line is shown; null while none is. Guarded by mutex_.
  std::string live_;         // guarded by mutex_
};
