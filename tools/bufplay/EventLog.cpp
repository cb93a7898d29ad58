#include "EventLog.h"

#include <cerrno>
#include <cstring>

#include "BadInput.h"

namespace {

std::string JsonString(const std::string& text) {
  std::string quoted = "\"";
  for (const unsigned char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += char(c);
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      quoted += escaped;
    } else {
      quoted += char(c);
    }
  }
  return quoted + "\"";
}

}  // namespace

EventLog::EventLog(const std::string& path)
    : file_(path == "-" ? stdout : std::fopen(path.c_str(), "w")), owned_(path != "-") {
  if (!file_) throw BadInput("cannot write " + path + ": " + std::strerror(errno));
}

EventLog::~EventLog() {
  if (owned_) std::fclose(file_);
}

void EventLog::write(const SessionEvent& event) {
  const char* name = DelegateOperationName(event.kind);
  if (!name) return;
  std::string arguments;
  switch (event.kind) {
    case SessionEvent::TotalLength:
    case SessionEvent::Progress: {
      char seconds[64];
      std::snprintf(seconds, sizeof seconds, ",\"seconds\":%.6g", event.seconds);
      arguments = seconds;
      break;
    }
    case SessionEvent::Error:
      arguments = ",\"error\":" + std::to_string(int(event.error)) + ",\"description\":" + JsonString(event.description);
      break;
    case SessionEvent::Paused:
      arguments = std::string(",\"source\":\"") + PauseSourceName(event.source) + "\"";
      break;
    default:
      break;
  }
  std::fprintf(file_, "{\"t\":%.3f,\"sentence\":%d,\"event\":\"%s\"%s}\n", event.t, event.sentence, name,
               arguments.c_str());
  // A reader following the file (a test, tail -f) sees each call as it happens.
  std::fflush(file_);
}
