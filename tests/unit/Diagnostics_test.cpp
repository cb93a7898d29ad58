// The log line's exact shape as a host's sink receives it, and the level gate.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "Diagnostics/qen_log.h"

namespace {

TEST(DiagnosticLog, SinkReceivesEachWholeLineOfTheEnabledLevelsWithTimeLevelShortFileAndLine) {
  using namespace QEN_TTS;
  // The player logs every sentence's end at ERROR: a client hears nothing unless it asks.
  EXPECT_FALSE(can_log(QEN_LOG_LEVEL_ERROR));
  std::vector<std::string> lines;
  set_log_sink([&lines](std::string_view line) { lines.emplace_back(line); });
  for (const auto& [enabled, written] : {std::pair{QEN_LOG_LEVEL_ERROR, "E"}, {QEN_LOG_LEVEL_DEBUG, "ED"},
                                         {QEN_LOG_LEVEL_TRACE, "EDT"}, {QEN_LOG_LEVEL_OFF, ""}}) {
    set_log_level(enabled);
    lines.clear();
    LOG_ERROR("E");
    LOG_DEBUG("D");
    LOG_TRACE("T");
    std::string messages;
    for (const std::string& line : lines) messages += line.substr(line.size() - 2, 1);
    EXPECT_EQ(messages, written) << enabled;
  }
  set_log_level(QEN_LOG_LEVEL_TRACE);
  lines.clear();
  const int line = __LINE__ + 1;
  LOG_DEBUG("Stream type %s", "MP3");
  set_log_sink(nullptr);
  set_log_level(QEN_LOG_LEVEL_OFF);
  ASSERT_EQ(lines.size(), 1u);
  const std::string fixed = "\\[DEBUG\\]\\[Diagnostics_test\\.cpp:" + std::to_string(line) + "\\]Stream type MP3\n";
  EXPECT_TRUE(std::regex_match(lines[0], std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z " + fixed)))
      << lines[0];
}

}  // namespace
