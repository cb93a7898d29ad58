// The exception class that platform services raise (the counterpart of the platform's NSException).
// Only the session activation and the stream property handling catch it; anything else propagates.
#pragma once

#include <stdexcept>
#include <string>

class PlatformException : public std::runtime_error {
 public:
  explicit PlatformException(const std::string& description) : std::runtime_error(description) {}
  // What the platform shows as the exception's description ("%@").
  const char* description() const noexcept { return what(); }
};
