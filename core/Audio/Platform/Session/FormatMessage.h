// printf-style formatting into a string, for the system log and its test stand-in.
#pragma once

#include <cstdarg>
#include <string>

std::string formatMessage(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));
