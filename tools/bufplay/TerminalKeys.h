// Keys while playing: the terminal on standard input in raw mode (no echo, no line editing; Ctrl-C
// and Ctrl-Z still raise their signals), restored when this object goes away.
#pragma once

#include <termios.h>

#include <memory>
#include <string>

class TerminalKeys {
 public:
  // Null unless standard input and output are this process's foreground terminal.
  static std::unique_ptr<TerminalKeys> Open();
  ~TerminalKeys();
  TerminalKeys(const TerminalKeys&) = delete;
  TerminalKeys& operator=(const TerminalKeys&) = delete;

  int fd() const;
  // The keys typed since the last call; never blocks.
  std::string read();
  // Around a job-control stop: the shell gets its own settings back, and raw mode returns after.
  void restore();
  void enterRawMode();

 private:
  explicit TerminalKeys(const termios& saved);
  const termios saved_;
};
