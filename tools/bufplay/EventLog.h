// --events: every delegate call as one JSON object per line, e.g.
// {"t":0.412,"sentence":1,"event":"playProgressChanged","seconds":0.32}
#pragma once

#include <cstdio>
#include <string>

#include "SessionEvent.h"

class EventLog {
 public:
  // "-" writes to standard output. Throws BadInput when the file cannot be created.
  explicit EventLog(const std::string& path);
  ~EventLog();
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  // Writes delegate calls and ignores bufplay's own events. Main loop only.
  void write(const SessionEvent& event);

 private:
  FILE* file_;
  const bool owned_;
};
