// bufplay's reports of a session, read back from --events (and pictured by --timeline): the holds and stops
// that --at scripts, with their sources, and a real-time producer with and without a lead. Sentences
// play on the null output in real time; --at times are wall-clock seconds. Only the order of the
// reports is checked, never their timing.
#include <algorithm>
#include <regex>
#include <set>
#include <sstream>

#include "e2e/BufplayProcess.h"

namespace bufplay_test {
namespace {

struct Event {
  int sentence = 0;
  std::string name, source;
  double seconds = -1;
  std::string key() const { return std::to_string(sentence) + " " + name + (source.empty() ? "" : " " + source); }
};

std::string Field(const std::string& line, const std::string& key) {
  std::smatch match;
  if (!std::regex_search(line, match, std::regex("\"" + key + "\":(\"([^\"]*)\"|[-0-9.e+]+)"))) return "";
  return match[2].matched ? match[2].str() : match[1].str();
}

std::vector<Event> ParseEvents(const std::string& text) {
  std::vector<Event> events;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_TRUE(line.front() == '{' && line.back() == '}') << line;
    Event& event =
        events.emplace_back(Event{std::stoi(Field(line, "sentence")), Field(line, "event"), Field(line, "source")});
    if (!Field(line, "seconds").empty()) event.seconds = std::stod(Field(line, "seconds"));
  }
  return events;
}

constexpr double kHelloSeconds = 0.960750;  // hello_s16le_16000.pcm

struct Script {
  const char* name;
  std::vector<std::string> arguments;  // "HELLO" stands for a sentence, "TAG" for an MP3 without frames
  std::vector<std::string> expected;   // Event::key()s, in this order among the others
  std::vector<std::string> absent = {};
  bool only = false;  // nothing but the expected reports
  const char* message = "";
  std::vector<std::string> pictured = {};  // what the --timeline SVG shows
};

void PrintTo(const Script& script, std::ostream* out) { *out << script.name; }

class BufplayScript : public testing::TestWithParam<Script> {};

TEST_P(BufplayScript, ReportsWhatTheScriptDidInOrder) {
  REQUIRE_BUFPLAY();
  ScratchFolder scratch;
  std::vector<std::string> arguments{"--output", "null", "--events", "-"};
  for (std::string argument : GetParam().arguments) {
    if (argument == "HELLO") argument = CorpusPath("hello_s16le_16000.pcm");
    if (argument == "TAG") {
      // Only the ID3v1 tag of an MP3: the player finds no frame and never makes a sound.
      const std::vector<uint8_t> mp3 = ReadCorpusFile("hello_m2_16k_cbr32_lame_id3v1.mp3");
      argument = scratch.file("tag.mp3");
      WriteBytes(argument, std::vector<uint8_t>(mp3.end() - 128, mp3.end()));
    }
    arguments.push_back(argument);
  }
  if (!GetParam().pictured.empty()) arguments.insert(arguments.begin(), {"--timeline", scratch.file("session.svg")});
  const Outcome outcome = RunBufplay(arguments);
  ASSERT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_NE(outcome.err.find(GetParam().message), std::string::npos) << outcome.err;
  std::vector<std::string> keys;
  for (const Event& event : ParseEvents(outcome.out)) keys.push_back(event.key());
  auto next = keys.begin();
  for (const std::string& expected : GetParam().expected) {
    next = std::find(next, keys.end(), expected);
    ASSERT_NE(next, keys.end()) << expected << " missing or out of order in\n" << outcome.out;
  }
  // A hold or its end is reported once, never again while it lasts.
  for (const std::string& key : std::set<std::string>(keys.begin(), keys.end())) {
    if (key.find("PlayerWas") != std::string::npos) {
      EXPECT_LE(std::ranges::count(keys, key), std::ranges::count(GetParam().expected, key)) << key;
    }
  }
  for (const std::string& absent : GetParam().absent) {
    EXPECT_EQ(std::find(keys.begin(), keys.end(), absent), keys.end()) << absent;
  }
  if (GetParam().only) {
    EXPECT_EQ(keys, GetParam().expected);
  }
  if (GetParam().pictured.empty()) return;
  const std::string svg = ReadText(scratch.file("session.svg"));
  EXPECT_EQ(svg.rfind("<svg", 0), 0u);
  for (const std::string& part : GetParam().pictured) EXPECT_NE(svg.find(part), std::string::npos) << part;
}

INSTANTIATE_TEST_SUITE_P(
    Scripts, BufplayScript,
    testing::Values(
        Script{"UserPause",
               {"--at", "0.5:pause", "--at", "1.0:resume", "--format", "pcm16k", "HELLO"},
               {"1 playerWillStartPlayback", "1 PlayerWasPaused user", "1 PlayerWasResumed", "1 PlaybackFinished"},
               {},
               false,
               "",
               {"hello_s16le_16000.pcm", "user pause", "about to end", "finished", "<polyline", "</svg>"}},
        Script{"Interruption",
               {"--at", "0.5:interrupt-begin", "--at", "1.0:interrupt-end", "--format", "pcm16k", "HELLO"},
               {"1 PlayerWasPaused interrupt", "1 PlayerWasResumed", "1 PlaybackFinished"}},
        // A sentence already playing goes on in the background; the next waits for the foreground.
        Script{"BackgroundHoldsTheNextSentence",
               {"--at", "0.5:background", "--at", "2.0:foreground", "--format", "pcm16k", "HELLO", "HELLO"},
               {"1 PlaybackFinished", "2 playerWillStartPlayback", "2 PlayerWasPaused background",
                "2 PlayerWasResumed", "2 PlaybackFinished"},
               {"1 PlayerWasPaused background"}},
        Script{"StopEndsTheSentenceAndStartPlaysTheNext",
               {"--at", "0.3:stop", "--at", "0.5:start", "--format", "pcm16k", "HELLO", "HELLO"},
               {"1 playerWillStartPlayback", "2 playerWillStartPlayback", "2 PlaybackFinished"},
               {"1 PlaybackFinished"}},
        Script{"SentenceWithoutSoundIsEnded",
               {"TAG"},
               {"1 playerWillStartPlayback", "1 PlaybackFinished"},
               {},
               true,
               "no sound"}),
    [](const testing::TestParamInfo<Script>& info) { return std::string(info.param.name); });

// A producer that delivers 50 ms chunks in real time; without a lead held back, the player refuses
// the audio after the run-out point and bufplay says how much (status 3).
TEST(BufplayEvents, RealTimeProducerPlaysWholeWithTheDefaultLeadOnlyAndReportsInOrder) {
  REQUIRE_BUFPLAY();
  for (const bool lead : {true, false}) {
    SCOPED_TRACE(lead ? "default lead" : "no lead");
    std::vector<std::string> arguments{"--output", "null", "--events", "-", "--offset", "10", "--pace", "1",
                                       "--chunk", "1600", "--format", "pcm16k", CorpusPath("hello_s16le_16000.pcm")};
    if (!lead) arguments.insert(arguments.begin(), {"--lead", "0"});
    const Outcome outcome = RunBufplay(arguments);
    EXPECT_EQ(outcome.exitStatus, lead ? 0 : 3) << outcome.err;
    EXPECT_EQ(std::regex_search(outcome.err, std::regex("the player refused [0-9.]+ s of audio")), !lead)
        << outcome.err;
    const std::vector<Event> events = ParseEvents(outcome.out);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front().name, "playerWillStartPlayback");
    EXPECT_EQ(events.back().name, "PlaybackFinished");
    for (const char* name : {"updatedTotalLength", "playProgressChanged"}) {
      std::vector<double> values;
      for (const Event& event : events) {
        if (event.name == name) values.push_back(event.seconds);
      }
      ASSERT_FALSE(values.empty()) << name;
      EXPECT_TRUE(std::is_sorted(values.begin(), values.end())) << name;
      EXPECT_GT(values.front(), 10.0) << name;
      EXPECT_EQ(values.back() < 10 + kHelloSeconds - 1e-4, !lead) << name;
    }
  }
}

}  // namespace
}  // namespace bufplay_test
