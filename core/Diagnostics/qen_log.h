// Diagnostic lines: "<time>[LEVEL][file.cpp:123]message\n", each written whole, to standard error
// or to the host's sink (qen_log_control.h).
//
// The gate is asked first; when it says no, nothing of the line is evaluated (no time stamp, no
// arguments, no formatting). Lines may be written from any thread; no lock is taken.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

#include "Diagnostics/qen_log_control.h"

namespace QEN_TTS {

// Whether lines of this level are written: level <= the enabled level (none by default).
bool can_log(int level);
// The time stamp that starts every line, in UTC: "2026-11-22T23:40:01.123Z ".
std::string get_gmt_time();
// The file name without its directories; points into path.
const char* get_file_name(const char* path);
// Formats one line and hands it whole to the sink, or to standard error in one write.
[[gnu::format(printf, 1, 2)]] void write_log_line(const char* format, ...);

}  // namespace QEN_TTS

// A status code as its four bytes, most significant first, copied as they are, then a zero byte.
std::array<char, 5> FourCCText(int32_t status);

#define QEN_LOG(level, word, format, ...)                                                           \
  do {                                                                                              \
    if (QEN_TTS::can_log(level)) {                                                                  \
      const std::string qen_log_time_ = QEN_TTS::get_gmt_time();                                    \
      QEN_TTS::write_log_line("%s[" word "][%s:%d]" format "\n", qen_log_time_.c_str(),             \
                              QEN_TTS::get_file_name(__FILE__), __LINE__ __VA_OPT__(, ) __VA_ARGS__); \
    }                                                                                               \
  } while (0)

#define LOG_ERROR(format, ...) QEN_LOG(QEN_TTS::QEN_LOG_LEVEL_ERROR, "ERROR", format __VA_OPT__(, ) __VA_ARGS__)
#define LOG_DEBUG(format, ...) QEN_LOG(QEN_TTS::QEN_LOG_LEVEL_DEBUG, "DEBUG", format __VA_OPT__(, ) __VA_ARGS__)
#define LOG_TRACE(format, ...) QEN_LOG(QEN_TTS::QEN_LOG_LEVEL_TRACE, "TRACE", format __VA_OPT__(, ) __VA_ARGS__)
