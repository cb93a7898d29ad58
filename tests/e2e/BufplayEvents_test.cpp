// Plan: bufplay's reports of a session, read back from --events (and --timeline): the delegate
// calls of each sentence in their order, the pauses and interruptions that --at scripts with their
// sources, the end of a sentence that makes no sound, and a real-time producer that plays whole
// with the default lead and, without one, is told how much the player refused (exit status 3).
// Sentences play on the null output in real time; --at times are wall-clock seconds.
// Not here: exact timings (only their order), the terminal display and keys (they need a terminal).
#include <regex>

#include "e2e/BufplayProcess.h"

namespace bufplay_test {
namespace {

struct Event {
  double t = 0;
  int sentence = 0;
  std::string name;
  double seconds = -1;
  std::string source;
  std::string description;
};

std::string Field(const std::string& line, const std::string& key) {
  const std::regex pattern("\"" + key + "\":(\"([^\"]*)\"|[-0-9.e+]+)");
  std::smatch match;
  if (!std::regex_search(line, match, pattern)) return "";
  return match[2].matched ? match[2].str() : match[1].str();
}

std::vector<Event> ParseEvents(const std::string& text) {
  std::vector<Event> events;
  for (const std::string& line : Lines(text)) {
    EXPECT_TRUE(line.front() == '{' && line.back() == '}') << line;
    Event event;
    event.t = std::stod(Field(line, "t"));
    event.sentence = std::stoi(Field(line, "sentence"));
    event.name = Field(line, "event");
    if (!Field(line, "seconds").empty()) event.seconds = std::stod(Field(line, "seconds"));
    event.source = Field(line, "source");
    event.description = Field(line, "description");
    events.push_back(event);
  }
  return events;
}

// The events of one sentence, and the first of a kind within them.
struct Sentence {
  std::vector<Event> events;

  Sentence(const std::vector<Event>& all, int number) {
    for (const Event& event : all) {
      if (event.sentence == number) events.push_back(event);
    }
  }
  ptrdiff_t indexOf(const std::string& name) const {
    for (size_t i = 0; i < events.size(); ++i) {
      if (events[i].name == name) return ptrdiff_t(i);
    }
    return -1;
  }
  const Event* first(const std::string& name) const {
    const ptrdiff_t index = indexOf(name);
    return index < 0 ? nullptr : &events[size_t(index)];
  }
  std::vector<double> seconds(const std::string& name) const {
    std::vector<double> values;
    for (const Event& event : events) {
      if (event.name == name) values.push_back(event.seconds);
    }
    return values;
  }
};

std::string HelloPcm() { return CorpusPath("hello_s16le_16000.pcm"); }
constexpr double kHelloSeconds = 0.960750;  // 30744 bytes at 16 kHz

Outcome PlayOnNull(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"--output", "null", "--events", "-"});
  return RunBufplay(arguments);
}

// A hold that --at begins and ends while the sentence plays.
struct ScriptedHold {
  const char* name;
  const char* begin;
  const char* end;
  const char* source;  // of the PlayerWasPaused report
};

void PrintTo(const ScriptedHold& hold, std::ostream* out) { *out << hold.name; }

class BufplayHold : public testing::TestWithParam<ScriptedHold> {};

TEST_P(BufplayHold, PausesWithItsSourceHoldsThePositionAndResumes) {
  REQUIRE_BUFPLAY();
  const ScriptedHold& hold = GetParam();
  const Outcome outcome = PlayOnNull(
      {"--at", std::string("0.5:") + hold.begin, "--at", std::string("1.0:") + hold.end, "--format", "pcm16k", HelloPcm()});
  ASSERT_EQ(outcome.exitStatus, 0) << outcome.err;
  const Sentence sentence(ParseEvents(outcome.out), 1);
  const ptrdiff_t paused = sentence.indexOf("PlayerWasPaused");
  const ptrdiff_t resumed = sentence.indexOf("PlayerWasResumed");
  const ptrdiff_t finished = sentence.indexOf("PlaybackFinished");
  ASSERT_GE(paused, 0);
  EXPECT_EQ(sentence.events[size_t(paused)].source, hold.source);
  EXPECT_GE(sentence.events[size_t(paused)].t, 0.5);
  ASSERT_GT(resumed, paused);
  EXPECT_GE(sentence.events[size_t(resumed)].t, 1.0);
  EXPECT_GT(finished, resumed);

  // Playback stood still in between: at most the buffer playing when the hold began completes.
  double positionAtPause = 0;
  double furthestWhileHeld = 0;
  for (const Event& event : sentence.events) {
    if (event.name != "playProgressChanged") continue;
    if (event.t <= sentence.events[size_t(paused)].t) positionAtPause = event.seconds;
    if (event.t < sentence.events[size_t(resumed)].t) furthestWhileHeld = event.seconds;
  }
  EXPECT_LE(furthestWhileHeld, positionAtPause + 0.1 + 1e-6);
  EXPECT_LT(furthestWhileHeld, kHelloSeconds - 0.25);
}

INSTANTIATE_TEST_SUITE_P(Holds, BufplayHold,
                         testing::Values(ScriptedHold{"UserPause", "pause", "resume", "user"},
                                         ScriptedHold{"Interruption", "interrupt-begin", "interrupt-end", "interrupt"}),
                         [](const testing::TestParamInfo<ScriptedHold>& info) { return std::string(info.param.name); });

// Also shows that the next sentence starts only once the previous one has finished.
TEST(BufplayEvents, BackgroundHoldsTheNextSentenceUntilForeground) {
  REQUIRE_BUFPLAY();
  const Outcome outcome =
      PlayOnNull({"--at", "0.5:background", "--at", "2.0:foreground", "--format", "pcm16k", HelloPcm(), HelloPcm()});
  ASSERT_EQ(outcome.exitStatus, 0) << outcome.err;
  const std::vector<Event> events = ParseEvents(outcome.out);
  const Sentence first(events, 1);
  const Sentence second(events, 2);
  EXPECT_EQ(first.indexOf("PlayerWasPaused"), -1) << "a sentence already playing goes on in the background";
  ASSERT_NE(first.first("PlaybackFinished"), nullptr);
  ASSERT_NE(second.first("playerWillStartPlayback"), nullptr);
  EXPECT_LE(first.first("PlaybackFinished")->t, second.first("playerWillStartPlayback")->t);
  ASSERT_NE(second.first("PlayerWasPaused"), nullptr);
  EXPECT_EQ(second.first("PlayerWasPaused")->source, "background");
  ASSERT_NE(second.first("PlayerWasResumed"), nullptr);
  EXPECT_GE(second.first("PlayerWasResumed")->t, 2.0);
  ASSERT_NE(second.first("PlaybackFinished"), nullptr);
  EXPECT_GT(second.indexOf("PlaybackFinished"), second.indexOf("PlayerWasResumed"));
}

TEST(BufplayEvents, StopEndsTheSentenceWithoutFinishAndStartPlaysTheNext) {
  REQUIRE_BUFPLAY();
  const Outcome outcome = PlayOnNull({"--at", "0.3:stop", "--at", "0.5:start", "--format", "pcm16k", HelloPcm(), HelloPcm()});
  ASSERT_EQ(outcome.exitStatus, 0) << outcome.err;
  const std::vector<Event> events = ParseEvents(outcome.out);
  const Sentence first(events, 1);
  const Sentence second(events, 2);
  EXPECT_EQ(first.indexOf("PlaybackFinished"), -1);
  ASSERT_NE(second.first("playerWillStartPlayback"), nullptr);
  EXPECT_GE(second.first("playerWillStartPlayback")->t, 0.5);
  EXPECT_EQ(second.events.back().name, "PlaybackFinished");
}

TEST(BufplayEvents, SentenceWithoutSoundIsEndedInsteadOfAwaitedForever) {
  REQUIRE_BUFPLAY();
  ScratchFolder scratch;
  // Only the ID3v1 tag of an MP3: the player finds no frame and never makes a sound.
  const std::vector<uint8_t> mp3 = ReadBytes(CorpusPath("hello_m2_16k_cbr32_lame_id3v1.mp3"));
  WriteBytes(scratch.file("tag-only.mp3"), std::vector<uint8_t>(mp3.end() - 128, mp3.end()));
  const Outcome outcome = PlayOnNull({scratch.file("tag-only.mp3")});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_NE(outcome.err.find("no sound"), std::string::npos) << outcome.err;
  const Sentence sentence(ParseEvents(outcome.out), 1);
  ASSERT_EQ(sentence.events.size(), 2u) << outcome.out;
  EXPECT_EQ(sentence.events[0].name, "playerWillStartPlayback");
  EXPECT_EQ(sentence.events[1].name, "PlaybackFinished");
}

// A producer that delivers in real time, 50 ms chunks, with and without a lead of audio held back.
struct RealTimeProducer {
  const char* name;
  std::vector<std::string> lead;  // arguments
  int exitStatus;
  bool refused;  // the player refused the audio after the run-out point, and bufplay says how much
};

void PrintTo(const RealTimeProducer& producer, std::ostream* out) { *out << producer.name; }

class BufplayLead : public testing::TestWithParam<RealTimeProducer> {};

// Also: the delegate calls of a sentence in their order, with the offset added.
TEST_P(BufplayLead, ReportsTheSentenceInOrderAndPlaysItWholeOrSaysHowMuchWasRefused) {
  REQUIRE_BUFPLAY();
  std::vector<std::string> arguments = GetParam().lead;
  arguments.insert(arguments.end(), {"--offset", "10", "--pace", "1", "--chunk", "1600", "--format", "pcm16k", HelloPcm()});
  const Outcome outcome = PlayOnNull(arguments);
  EXPECT_EQ(outcome.exitStatus, GetParam().exitStatus) << outcome.err;
  EXPECT_EQ(std::regex_search(outcome.err, std::regex("the player refused [0-9.]+ s of audio")), GetParam().refused)
      << outcome.err;
  const Sentence sentence(ParseEvents(outcome.out), 1);
  ASSERT_FALSE(sentence.events.empty());
  EXPECT_EQ(sentence.events.front().name, "playerWillStartPlayback");
  EXPECT_EQ(sentence.events.back().name, "PlaybackFinished");
  for (const char* name : {"updatedTotalLength", "playProgressChanged"}) {
    const std::vector<double> values = sentence.seconds(name);
    ASSERT_FALSE(values.empty()) << name;
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end())) << name;
    EXPECT_GT(values.front(), 10.0) << name;
    EXPECT_EQ(values.back() < 10 + kHelloSeconds - 1e-4, GetParam().refused) << name;
  }
  EXPECT_GE(sentence.indexOf("aboutToEnd"), 0);
}

INSTANTIATE_TEST_SUITE_P(Producers, BufplayLead,
                         testing::Values(RealTimeProducer{"DefaultLead", {}, 0, false},
                                         RealTimeProducer{"NoLead", {"--lead", "0"}, 3, true}),
                         [](const testing::TestParamInfo<RealTimeProducer>& info) { return std::string(info.param.name); });

TEST(BufplayEvents, TimelinePicturesTheSentencesWithTheirHoldsAndEnds) {
  REQUIRE_BUFPLAY();
  ScratchFolder scratch;
  const Outcome outcome = RunBufplay({"--output", "null", "--timeline", scratch.file("session.svg"), "--at",
                                      "0.3:pause", "--at", "0.6:resume", "--format", "pcm16k", HelloPcm()});
  ASSERT_EQ(outcome.exitStatus, 0) << outcome.err;
  const std::vector<uint8_t> bytes = ReadBytes(scratch.file("session.svg"));
  const std::string svg(bytes.begin(), bytes.end());
  EXPECT_EQ(svg.rfind("<svg", 0), 0u);
  EXPECT_NE(svg.find("</svg>"), std::string::npos);
  for (const char* part : {"hello_s16le_16000.pcm", "user pause", "about to end", "finished", "<polyline"}) {
    EXPECT_NE(svg.find(part), std::string::npos) << part;
  }
}

}  // namespace
}  // namespace bufplay_test
