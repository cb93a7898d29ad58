// Plan: the log line's exact shape as a host's sink receives it, the level gate (including that
// nothing is evaluated when the gate says no) and its default, and FourCCText for printable, zero
// and non-printable codes.
#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

#include "Diagnostics/qen_log.h"

namespace {

class LogLevelScope {
 public:
  explicit LogLevelScope(int level) : saved_(QEN_TTS::log_level()) { QEN_TTS::set_log_level(level); }
  ~LogLevelScope() { QEN_TTS::set_log_level(saved_); }

 private:
  int saved_;
};

int evaluations = 0;
int counted(int value) {
  ++evaluations;
  return value;
}

TEST(DiagnosticLog, SinkReceivesEachWholeLineWithTimeLevelShortFileAndLineInsteadOfStandardError) {
  LogLevelScope scope(QEN_TTS::QEN_LOG_LEVEL_TRACE);
  std::vector<std::string> lines;
  QEN_TTS::set_log_sink([&lines](std::string_view line) { lines.emplace_back(line); });
  testing::internal::CaptureStderr();
  const int line = __LINE__ + 1;
  LOG_DEBUG("Stream type %s", "MP3");
  QEN_TTS::set_log_sink(nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_EQ(lines.size(), 1u);
  const std::string& written = lines[0];
  // "2026-11-22T23:40:01.123Z " then the fixed part.
  const std::string stamp = "0000-00-00T00:00:00.000Z ";
  ASSERT_GT(written.size(), stamp.size()) << written;
  for (size_t i = 0; i < stamp.size(); ++i) {
    if (stamp[i] == '0') {
      EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(written[i]))) << written;
    } else {
      EXPECT_EQ(written[i], stamp[i]) << written;
    }
  }
  EXPECT_EQ(written.substr(stamp.size()),
            "[DEBUG][Diagnostics_test.cpp:" + std::to_string(line) + "]Stream type MP3\n");
}

TEST(DiagnosticLog, GateWritesOnlyEnabledLevelsAndEvaluatesNothingElse) {
  struct Case {
    int enabled;
    bool error, debug, trace;
  };
  for (const Case c : {Case{QEN_TTS::QEN_LOG_LEVEL_ERROR, true, false, false},
                       Case{QEN_TTS::QEN_LOG_LEVEL_DEBUG, true, true, false},
                       Case{QEN_TTS::QEN_LOG_LEVEL_TRACE, true, true, true},
                       Case{QEN_TTS::QEN_LOG_LEVEL_OFF, false, false, false}}) {
    LogLevelScope scope(c.enabled);
    evaluations = 0;
    testing::internal::CaptureStderr();
    LOG_ERROR("e%d", counted(1));
    LOG_DEBUG("d%d", counted(2));
    LOG_TRACE("t%d", counted(3));
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_EQ(written.find("[ERROR]") != std::string::npos, c.error) << c.enabled;
    EXPECT_EQ(written.find("[DEBUG]") != std::string::npos, c.debug) << c.enabled;
    EXPECT_EQ(written.find("[TRACE]") != std::string::npos, c.trace) << c.enabled;
    EXPECT_EQ(evaluations, int(c.error) + int(c.debug) + int(c.trace)) << c.enabled;
  }
}

// The player logs every sentence's end at ERROR: a client hears nothing unless it asks.
TEST(DiagnosticLog, DefaultWritesNothing) { EXPECT_FALSE(QEN_TTS::can_log(QEN_TTS::QEN_LOG_LEVEL_ERROR)); }

TEST(FourCCText, TakesBytesMostSignificantFirstAsTheyAre) {
  struct Case {
    int32_t status;
    std::array<char, 5> text;
  };
  for (const Case c : {Case{0x21696E74, {'!', 'i', 'n', 't', 0}}, Case{0, {0, 0, 0, 0, 0}},
                       Case{-50, {'\xff', '\xff', '\xff', '\xce', 0}}, Case{0x01020304, {1, 2, 3, 4, 0}}}) {
    EXPECT_EQ(FourCCText(c.status), c.text) << c.status;
  }
}

}  // namespace
