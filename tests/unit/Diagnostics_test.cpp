// The log line's exact shape as a host's sink receives it, and the level gate.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "Diagnostics/qen_log.h"

namespace {

TEST(DiagnosticLog, SinkReceivesEachWholeLineWithTimeLevelShortFileAndLine) {
  // The player logs every sentence's end at ERROR: a client hears nothing unless it asks.
  EXPECT_FALSE(QEN_TTS::can_log(QEN_TTS::QEN_LOG_LEVEL_ERROR));
  QEN_TTS::set_log_level(QEN_TTS::QEN_LOG_LEVEL_TRACE);
  std::vector<std::string> lines;
  QEN_TTS::set_log_sink([&lines](std::string_view line) { lines.emplace_back(line); });
  const int line = __LINE__ + 1;
  LOG_DEBUG("Stream type %s", "MP3");
  QEN_TTS::set_log_sink(nullptr);
  QEN_TTS::set_log_level(QEN_TTS::QEN_LOG_LEVEL_OFF);
  ASSERT_EQ(lines.size(), 1u);
  const std::string fixed = "\\[DEBUG\\]\\[Diagnostics_test\\.cpp:" + std::to_string(line) + "\\]Stream type MP3\n";
  EXPECT_TRUE(std::regex_match(lines[0], std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z " + fixed)))
      << lines[0];
}

TEST(DiagnosticLog, GateWritesOnlyEnabledLevels) {
  using namespace QEN_TTS;
  for (const auto& [enabled, written] : {std::pair{QEN_LOG_LEVEL_ERROR, "E"}, {QEN_LOG_LEVEL_DEBUG, "ED"},
                                         {QEN_LOG_LEVEL_TRACE, "EDT"}, {QEN_LOG_LEVEL_OFF, ""}}) {
    set_log_level(enabled);
    testing::internal::CaptureStderr();
    LOG_ERROR("E");
    LOG_DEBUG("D");
    LOG_TRACE("T");
    const std::string lines = testing::internal::GetCapturedStderr();
    std::string levels;  // the one-letter message of each line written
    for (size_t end = lines.find('\n'); end != std::string::npos; end = lines.find('\n', end + 1)) {
      levels += lines[end - 1];
    }
    EXPECT_EQ(levels, written) << enabled;
  }
}

}  // namespace
