// What a user who gets something wrong sees: status 2 and one line naming the problem, before any
// sound and without waiting for more input; audio the player cannot parse: status 1 and the
// player's own description. Not here: failures of the sound card (the null output never fails).
#include <algorithm>

#include "e2e/BufplayProcess.h"

namespace bufplay_test {
namespace {

struct BadRun {
  const char* name;
  std::vector<std::string> arguments;  // "SCRATCH/": a scratch folder; "HELLO", "GARBAGE": corpus files
  const char* message;
  std::vector<uint8_t> standardInput = {};
  int exitStatus = 2;
};

void PrintTo(const BadRun& run, std::ostream* out) { *out << run.name; }

class BufplayBadRun : public testing::TestWithParam<BadRun> {};

TEST_P(BufplayBadRun, ExitsWithOneLineNamingTheProblem) {
  REQUIRE_BUFPLAY();
  ScratchFolder scratch;
  for (const char* name : {"raw.pcm", "sound.ogg", "fake.wav"}) {
    WriteBytes(scratch.file(name), std::vector<uint8_t>(3200));
  }
  std::vector<std::string> arguments = GetParam().arguments;
  for (std::string& argument : arguments) {
    if (argument.rfind("SCRATCH/", 0) == 0) argument = scratch.file(argument.substr(8));
    if (argument == "HELLO") argument = CorpusPath("hello_s16le_16000.pcm");
    if (argument == "GARBAGE") argument = CorpusPath("bad_random_bytes_16k.mp3");
  }
  WriteBytes(scratch.file("stdin"), GetParam().standardInput);
  const Outcome outcome = RunBufplay(arguments, scratch.file("stdin"));
  EXPECT_EQ(outcome.exitStatus, GetParam().exitStatus);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
  EXPECT_EQ(outcome.err.rfind("bufplay: ", 0), 0u) << outcome.err;
  EXPECT_NE(outcome.err.find(GetParam().message), std::string::npos) << outcome.err;
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, BufplayBadRun,
    testing::Values(
        BadRun{"NoFile", {}, "FILE is required"}, BadRun{"UnknownOption", {"--loud", "HELLO"}, "--loud"},
        BadRun{"UnknownFormat", {"--format", "ogg", "HELLO"}, "--format"},
        BadRun{"ZeroChunk", {"--chunk", "0", "HELLO"}, "--chunk"},
        BadRun{"NegativePace", {"--pace", "-1", "HELLO"}, "--pace"},
        BadRun{"VolumeAboveOne", {"--volume", "2", "HELLO"}, "--volume"},
        BadRun{"UnknownOutput", {"--output", "speaker", "HELLO"}, "--output speaker"},
        BadRun{"SpeedOfTheSoundCard", {"--speed", "2", "HELLO"}, "--speed"},
        BadRun{"ActionWithoutTime", {"--at", "pause", "HELLO"}, "SECONDS:ACTION"},
        BadRun{"TimeNotANumber", {"--at", "soon:pause", "HELLO"}, "not a number"},
        BadRun{"UnknownAction", {"--at", "1:rewind", "HELLO"}, "unknown action 'rewind'"},
        BadRun{"VolumeActionOutOfRange", {"--at", "1:volume=3", "HELLO"}, "from 0 to 1"},
        BadRun{"MissingFile", {"SCRATCH/missing.mp3"}, "No such file or directory"},
        BadRun{"Folder", {"--format", "mp3", "SCRATCH/"}, "Is a directory"},
        BadRun{"RawPcmWithoutFormat", {"SCRATCH/raw.pcm"}, "needs --format"},
        BadRun{"UnknownExtension", {"SCRATCH/sound.ogg"}, "use --format"},
        BadRun{"WavWithoutRiffHeader", {"SCRATCH/fake.wav"}, "not a RIFF WAVE file"},
        BadRun{"GarbageOnStandardInput", {"-"}, "standard input: cannot tell the audio format",
               std::vector<uint8_t>(100000, 'x')},
        BadRun{"EmptyStandardInput", {"-"}, "standard input: no audio came in"},
        BadRun{"StandardInputTwice", {"-", "-"}, "read once only"},
        BadRun{"EventsInMissingFolder", {"--events", "SCRATCH/no/e.jsonl", "--format", "pcm16k", "HELLO"},
               "cannot write"},
        BadRun{"RecordingInMissingFolder", {"--output", "wav:SCRATCH/no/o.wav", "--format", "pcm16k", "HELLO"},
               "cannot write"},
        BadRun{"AudioThePlayerCannotParse", {"--output", "null", "GARBAGE"},
               "bad_random_bytes_16k.mp3: AudioFileStreamParseBytes returned error", {}, 1}),
    [](const testing::TestParamInfo<BadRun>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace bufplay_test
