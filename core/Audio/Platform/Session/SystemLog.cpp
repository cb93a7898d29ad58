// NSLog goes to syslog(3) only. openlog() is left to the host program, whose identity stays its
// own; each message carries this library's identifier instead so that it can be told apart.
#include "Audio/Platform/SystemLog.h"

#include <syslog.h>

#include "Audio/Platform/Session/FormatMessage.h"

namespace {
constexpr const char* kIdentifier = "AudioBufPlayer";
}  // namespace

void NSLog(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string message = formatMessage(format, arguments);
  va_end(arguments);
  syslog(LOG_USER | LOG_NOTICE, "%s: %s", kIdentifier, message.c_str());
}
