// bufplay plays into the WAV output faster than real time, and what it recorded is compared with
// what it was given. Not here: the sound card, and anything about timing.
#include <cmath>
#include <cstdlib>

#include "e2e/WavRecording.h"

namespace bufplay_test {
namespace {

Outcome PlayIntoWav(const ScratchFolder& scratch, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"--output", "wav:" + scratch.file("out.wav"), "--speed", "4", "--pace", "0"});
  return RunBufplay(arguments);
}

struct Playing {
  const char* name;
  std::vector<std::string> options;
  std::vector<std::string> sentences;  // corpus files, played in order
  uint32_t rate;
  double volume = 1.0;
};

TEST(BufplayAudio, EachSentenceIsRecordedAsFedInAFileOfItsOwn) {
  REQUIRE_BUFPLAY();
  const Playing playings[] = {
      {"RawPcm8k", {"--format", "pcm8k"}, {"hello_s16le_8000.pcm", "hold_s16le_8000.pcm"}, 8000},
      {"HalfVolume", {"--format", "pcm16k", "--volume", "0.5"}, {"hello_s16le_16000.pcm"}, 16000, 0.5},
      {"Mp3", {}, {"hello_m2_16k_cbr32_lame_id3v1.mp3"}, 16000},
  };
  for (const Playing& playing : playings) {
    SCOPED_TRACE(playing.name);
    ScratchFolder scratch;
    std::vector<std::string> arguments = playing.options;
    for (const std::string& sentence : playing.sentences) arguments.push_back(CorpusPath(sentence));
    const Outcome outcome = PlayIntoWav(scratch, arguments);
    ASSERT_EQ(outcome.exitStatus, 0) << outcome.err;
    const std::vector<Recording> recordings = ReadRecordings(scratch);
    ASSERT_EQ(recordings.size(), playing.sentences.size());
    for (size_t n = 0; n < recordings.size(); ++n) {
      const Recording& recording = recordings[n];
      EXPECT_EQ(recording.rate, playing.rate);
      EXPECT_EQ(recording.channels, 1u);
      EXPECT_EQ(recording.bits, 16u);
      // An MP3 is heard as the reference decode of the library the player links, sample for sample.
      std::string heard = playing.sentences[n];
      if (heard.ends_with(".mp3")) heard.replace(heard.size() - 4, 4, ".ref.pcm");
      std::vector<int16_t> fed = Samples(ReadCorpusFile(heard));
      for (int16_t& sample : fed) sample = int16_t(std::lround(sample * playing.volume));
      // The gain may round either way.
      EXPECT_TRUE(FedWithOnlySilenceAdded(fed, recording.samples, playing.volume == 1.0 ? 0 : 1)) << heard;
    }
  }
}

// Reads into `text` until it shows `marker` (empty: until the end), or nothing comes for a minute.
void ReadUntil(int fd, std::string& text, const std::string& marker) {
  pollfd readable{fd, POLLIN, 0};
  char block[4096];
  ssize_t got = 1;
  while ((marker.empty() || text.find(marker) == std::string::npos) && got > 0 && poll(&readable, 1, 60000) > 0) {
    got = read(fd, block, sizeof block);
    text.append(block, size_t(std::max<ssize_t>(got, 0)));
  }
}

// espeak-ng writes a WAV header with its sizes unset, then 16-bit mono samples at 22050 Hz. The pipe
// stalls after a second until bufplay reports sound: one that read its input to the end first would
// never report it.
TEST(BufplayAudio, SynthesizerPipeIsHeardWholeAndStartsWhileItStalls) {
  REQUIRE_BUFPLAY();
  constexpr size_t kHeaderBytes = 44;
  constexpr double kEspeakRate = 22050;
  ScratchFolder scratch;
  const std::string synthesize =
      "espeak-ng --stdout 'Streaming speech plays while the synthesizer is still writing it.' >" + scratch.file("in");
  ASSERT_EQ(std::system(synthesize.c_str()), 0) << "espeak-ng failed (scripts/setup installs it)";
  const std::vector<uint8_t> wav = ReadBytes(scratch.file("in"));
  ASSERT_GT(wav.size(), kHeaderBytes + 88200) << "espeak-ng wrote less than two seconds";
  const size_t stallAt = kHeaderBytes + 2 * size_t(kEspeakRate);
  int in[2], out[2];
  ASSERT_EQ(pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC), 0);
  const int err = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const pid_t child =
      StartBufplay({"--output", "wav:" + scratch.file("out.wav"), "--events", "-", "-"}, in[0], out[1], err);
  for (const int fd : {in[0], out[1], err}) close(fd);
  signal(SIGPIPE, SIG_IGN);  // a bufplay that failed stops reading
  EXPECT_EQ(write(in[1], wav.data(), stallAt), ssize_t(stallAt));
  std::string events;
  ReadUntil(out[0], events, "playProgressChanged");
  EXPECT_NE(events.find("playProgressChanged"), std::string::npos) << "no sound before the stall ended";
  EXPECT_EQ(write(in[1], wav.data() + stallAt, wav.size() - stallAt), ssize_t(wav.size() - stallAt));
  close(in[1]);
  ReadUntil(out[0], events, "");
  close(out[0]);
  ASSERT_EQ(AwaitBufplay(child), 0);
  const Recording recording = ReadRecording(scratch.file("out.wav"));
  EXPECT_EQ(recording.rate, 16000u);
  const double seconds = double(wav.size() - kHeaderBytes) / 2 / kEspeakRate;
  EXPECT_NEAR(double(recording.samples.size()) / 16000, seconds, seconds * 0.05);
}

// WAV files as recorders write them, around the samples of a corpus sentence.
struct WavLayout {
  const char* name;
  uint16_t formatTag = 1;
  uint16_t channels = 1;
  uint32_t rate = 16000;
  uint16_t bits = 16;
  bool extensible = false;        // WAVE_FORMAT_EXTENSIBLE with the PCM sub-format
  bool chunksBeforeData = false;  // a LIST chunk and a padded chunk of odd size
  bool dataSizeUnset = false;     // a streaming recorder never went back to fill it in
  bool noData = false;
  const char* refusal = nullptr;  // what bufplay says it cannot play
};

void Append(std::vector<uint8_t>& bytes, uint32_t value, int count) {
  for (int i = 0; i < count; ++i) bytes.push_back(uint8_t(value >> (8 * i)));
}

void AppendChunk(std::vector<uint8_t>& bytes, const char* id, const std::vector<uint8_t>& body, uint32_t size) {
  bytes.insert(bytes.end(), id, id + 4);
  Append(bytes, size, 4);
  bytes.insert(bytes.end(), body.begin(), body.end());
  if (body.size() & 1) bytes.push_back(0);
}

// Every channel carries the same samples, so that mixing them down gives them back.
std::vector<uint8_t> MakeWav(const WavLayout& layout, const std::vector<uint8_t>& mono) {
  std::vector<uint8_t> samples;
  for (size_t at = 0; at + 1 < mono.size(); at += 2) {
    for (int channel = 0; channel < layout.channels; ++channel) samples.insert(samples.end(), {mono[at], mono[at + 1]});
  }
  std::vector<uint8_t> format;
  Append(format, layout.extensible ? 0xFFFE : layout.formatTag, 2);
  Append(format, layout.channels, 2);
  Append(format, layout.rate, 4);
  Append(format, layout.rate * layout.channels * layout.bits / 8, 4);
  Append(format, uint32_t(layout.channels * layout.bits / 8), 2);
  Append(format, layout.bits, 2);
  if (layout.extensible) {
    Append(format, 22, 2);
    Append(format, layout.bits, 2);
    Append(format, 0x4, 4);  // front centre
    format.insert(format.end(), {1, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71});
  }
  std::vector<uint8_t> chunks;
  AppendChunk(chunks, "fmt ", format, uint32_t(format.size()));
  if (layout.chunksBeforeData) {
    AppendChunk(chunks, "LIST", {'I', 'N', 'F', 'O', 'I', 'S', 'F', 'T', 2, 0, 0, 0, 'x', 0}, 14);
    AppendChunk(chunks, "junk", {1, 2, 3}, 3);
  }
  if (!layout.noData) AppendChunk(chunks, "data", samples, layout.dataSizeUnset ? 0 : uint32_t(samples.size()));
  std::vector<uint8_t> file{'R', 'I', 'F', 'F'};
  Append(file, uint32_t(4 + chunks.size()), 4);
  file.insert(file.end(), {'W', 'A', 'V', 'E'});
  file.insert(file.end(), chunks.begin(), chunks.end());
  return file;
}

TEST(BufplayAudio, WavInputPlaysItsSamplesOrNamesWhatDoesNotFit) {
  REQUIRE_BUFPLAY();
  const WavLayout layouts[] = {
      {.name = "Plain8k", .rate = 8000},
      {.name = "ChunksBeforeData", .chunksBeforeData = true},
      {.name = "ExtensibleWithDataSizeUnset", .extensible = true, .dataSizeUnset = true},
      {.name = "Stereo", .channels = 2},
      {.name = "Rate44k", .rate = 44100},
      {.name = "EightBit", .bits = 8, .refusal = "8 bits"},
      {.name = "Float", .formatTag = 3, .bits = 32, .refusal = "format 3"},
      {.name = "NoData", .noData = true, .refusal = "without a data chunk"},
  };
  for (const WavLayout& layout : layouts) {
    SCOPED_TRACE(layout.name);
    const std::vector<uint8_t> pcm =
        ReadCorpusFile(layout.rate == 8000 ? "hello_s16le_8000.pcm" : "hello_s16le_16000.pcm");
    ScratchFolder scratch;
    WriteBytes(scratch.file("in.wav"), MakeWav(layout, pcm));
    const Outcome outcome = PlayIntoWav(scratch, {scratch.file("in.wav")});
    if (layout.refusal) {
      EXPECT_EQ(outcome.exitStatus, 2);
      EXPECT_NE(outcome.err.find(layout.refusal), std::string::npos) << outcome.err;
      EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
      continue;
    }
    ASSERT_EQ(outcome.exitStatus, 0) << outcome.err;
    const Recording recording = ReadRecording(scratch.file("out.wav"));
    const std::vector<int16_t> fed = Samples(pcm);
    if (layout.rate == 44100) {
      EXPECT_EQ(recording.rate, 16000u);
      EXPECT_NEAR(double(recording.samples.size()) / 16000, double(fed.size()) / layout.rate, 0.01);
    } else {
      EXPECT_EQ(recording.rate, layout.rate);
      EXPECT_TRUE(FedWithOnlySilenceAdded(fed, recording.samples));
    }
  }
}

}  // namespace
}  // namespace bufplay_test
