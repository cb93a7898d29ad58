// Plan: what a user who gets something wrong sees. Bad arguments, and files or standard input that
// bufplay cannot read or play, end with status 2 and one line naming the problem, before any
// sound and without waiting for more input; audio the player
// cannot parse ends with status 1 and the player's own description.
// Not here: failures of the sound card (the null output never fails).
#include "e2e/BufplayProcess.h"

namespace bufplay_test {
namespace {

struct BadRun {
  const char* name;
  std::vector<std::string> arguments;  // "SCRATCH/" is replaced with a scratch folder, "HELLO" with a sentence
  const char* message;  // part of the one line on standard error
  std::vector<uint8_t> standardInput = {};  // written to bufplay, then the pipe is closed
};

// The header of a WAV file of 8-bit samples, and a few of them.
std::vector<uint8_t> EightBitWav() {
  std::vector<uint8_t> wav{'R', 'I', 'F', 'F', 44, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 16, 0, 0, 0, 1, 0,
                           1, 0, 0x40, 0x1F, 0, 0, 0x40, 0x1F, 0, 0, 1, 0, 8, 0, 'd', 'a', 't', 'a', 8, 0, 0, 0};
  wav.resize(wav.size() + 8, 0x80);
  return wav;
}

void PrintTo(const BadRun& run, std::ostream* out) { *out << run.name; }

class BufplayBadRun : public testing::TestWithParam<BadRun> {};

TEST_P(BufplayBadRun, ExitsWithStatus2AndOneLineNamingTheProblem) {
  REQUIRE_BUFPLAY();
  ScratchFolder scratch;
  WriteBytes(scratch.file("raw.pcm"), std::vector<uint8_t>(3200, 0));
  WriteBytes(scratch.file("sound.ogg"), std::vector<uint8_t>(3200, 0));
  WriteBytes(scratch.file("fake.wav"), std::vector<uint8_t>(3200, 0));
  std::vector<std::string> arguments = GetParam().arguments;
  for (std::string& argument : arguments) {
    const size_t at = argument.find("SCRATCH/");
    if (at != std::string::npos) argument.replace(at, 8, scratch.file(""));
    if (argument == "HELLO") argument = CorpusPath("hello_s16le_16000.pcm");
  }
  StandardInput input{GetParam().standardInput, "", {}};
  const Outcome outcome = RunBufplay(arguments, std::chrono::seconds(120), &input);
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_EQ(outcome.out, "");
  ASSERT_EQ(Lines(outcome.err).size(), 1u) << outcome.err;
  EXPECT_EQ(outcome.err.rfind("bufplay: ", 0), 0u) << outcome.err;
  EXPECT_NE(outcome.err.find(GetParam().message), std::string::npos) << outcome.err;
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, BufplayBadRun,
    testing::Values(BadRun{"NoFile", {}, "FILE is required"},
                    BadRun{"UnknownOption", {"--loud", "HELLO"}, "--loud"},
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
                    BadRun{"EightBitWavOnStandardInput", {"-"}, "this WAV holds PCM, 1 channel(s), 8000 Hz, 8 bits",
                           EightBitWav()},
                    BadRun{"StandardInputTwice", {"-", "-"}, "read once only"},
                    BadRun{"EventsInMissingFolder", {"--events", "SCRATCH/no/events.jsonl", "--format", "pcm16k", "HELLO"}, "cannot write"},
                    BadRun{"RecordingInMissingFolder", {"--output", "wav:SCRATCH/no/out.wav", "--format", "pcm16k", "HELLO"}, "cannot write"}),
    [](const testing::TestParamInfo<BadRun>& info) { return std::string(info.param.name); });

TEST(BufplayErrors, AudioThePlayerCannotParseExitsWithStatus1AndTheParseError) {
  REQUIRE_BUFPLAY();
  const Outcome outcome = RunBufplay({"--output", "null", CorpusPath("bad_random_bytes_16k.mp3")});
  EXPECT_EQ(outcome.exitStatus, 1);
  ASSERT_EQ(Lines(outcome.err).size(), 1u) << outcome.err;
  EXPECT_NE(outcome.err.find("bad_random_bytes_16k.mp3: AudioFileStreamParseBytes returned error"), std::string::npos)
      << outcome.err;
}

}  // namespace
}  // namespace bufplay_test
