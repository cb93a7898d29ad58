#include "Audio/Platform/Session/FormatMessage.h"

#include <cstdio>

std::string formatMessage(const char* format, va_list arguments) {
  va_list measuring;
  va_copy(measuring, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, measuring);
  va_end(measuring);
  if (length <= 0) return {};
  std::string message(size_t(length), '\0');
  std::vsnprintf(message.data(), message.size() + 1, format, arguments);
  return message;
}
