#include "TerminalKeys.h"

#include <fcntl.h>
#include <unistd.h>

std::unique_ptr<TerminalKeys> TerminalKeys::Open() {
  termios saved{};
  if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO) || tcgetpgrp(STDIN_FILENO) != getpgrp() ||
      tcgetattr(STDIN_FILENO, &saved) != 0) {
    return nullptr;
  }
  std::unique_ptr<TerminalKeys> keys(new TerminalKeys(saved));
  keys->enterRawMode();
  return keys;
}

TerminalKeys::TerminalKeys(const termios& saved) : saved_(saved) {}

TerminalKeys::~TerminalKeys() { restore(); }

int TerminalKeys::fd() const { return STDIN_FILENO; }

void TerminalKeys::enterRawMode() {
  termios raw = saved_;
  raw.c_lflag &= tcflag_t(~(ICANON | ECHO));
  raw.c_cc[VMIN] = 0;  // a read returns what is there, even nothing
  raw.c_cc[VTIME] = 0;
  tcsetattr(STDIN_FILENO, TCSANOW, &raw);
}

void TerminalKeys::restore() { tcsetattr(STDIN_FILENO, TCSANOW, &saved_); }

std::string TerminalKeys::read() {
  char bytes[64];
  const ssize_t got = ::read(STDIN_FILENO, bytes, sizeof bytes);
  return got > 0 ? std::string(bytes, size_t(got)) : std::string();
}
