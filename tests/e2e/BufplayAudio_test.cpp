// Plan: bufplay plays sentences into the WAV output faster than real time, and what it recorded is
// compared with what it was given, sample for sample. The WAV output records silence where the
// queue ran dry, which a loaded machine (a sanitizer build) can make happen; such silence is the
// only difference allowed.
// - Raw PCM, and WAV files laid out the ways recorders write them; stereo and other rates are
//   converted. WAV layouts that bufplay cannot play end with status 2 and a message naming what
//   does not fit.
// - MP3: the corpus reference decode (libmpg123 decodes both), allowing for a decoder delay.
// - Several files: one recording per sentence, in order.
// - Standard input written by a real synthesizer (espeak-ng, WAV at 22050 Hz with its size unset),
//   with a stall mid-sentence that lasts until bufplay reports sound.
// - --volume reaches the output.
// Not here: the sound card, and anything about timing.
#include <gmock/gmock.h>

#include <cmath>
#include <cstdio>
#include <span>

#include "e2e/BufplayProcess.h"
#include "e2e/WavRecording.h"

namespace bufplay_test {
namespace {

// Plays the arguments into scratch/out.wav, faster than real time, fed as fast as the player takes
// the audio.
Outcome PlayIntoWav(const ScratchFolder& scratch, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"--output", "wav:" + scratch.file("out.wav"), "--speed", "4", "--pace", "0"});
  return RunBufplay(arguments);
}

TEST(BufplayAudio, Mp3IsRecordedAsItsReferenceDecode) {
  REQUIRE_BUFPLAY();
  ScratchFolder scratch;
  const Outcome outcome = PlayIntoWav(scratch, {CorpusPath("hello_m2_16k_cbr32_lame_id3v1.mp3")});
  ASSERT_EQ(outcome.exitStatus, 0) << outcome.err;
  const Recording recording = ReadRecording(scratch.file("out.wav"));
  const std::vector<int16_t> reference = Samples(ReadBytes(CorpusPath("hello_m2_16k_cbr32_lame_id3v1.ref.pcm")));
  EXPECT_EQ(recording.rate, 16000u);
  // A decoder may start up to a frame's worth of samples earlier or later than the reference's.
  constexpr size_t kMaxShift = 1152;
  const std::span<const int16_t> heard(recording.samples);
  const std::span<const int16_t> fed(reference);
  bool matched = false;
  for (size_t shift = 0; shift <= kMaxShift && !matched; ++shift) {
    matched = (shift < heard.size() && FedWithOnlySilenceAdded(fed, heard.subspan(shift))) ||
              (shift < fed.size() && FedWithOnlySilenceAdded(fed.subspan(shift), heard));
  }
  EXPECT_TRUE(matched) << "the recording is not the reference decode at any shift up to " << kMaxShift;
}

TEST(BufplayAudio, EachRawPcmSentenceIsRecordedSampleForSampleInItsOwnFileInOrder) {
  REQUIRE_BUFPLAY();
  ScratchFolder scratch;
  const Outcome outcome = PlayIntoWav(scratch, {"--format", "pcm8k", CorpusPath("hello_s16le_8000.pcm"),
                                                CorpusPath("hold_s16le_8000.pcm")});
  ASSERT_EQ(outcome.exitStatus, 0) << outcome.err;
  const Recording first = ReadRecording(scratch.file("out.wav"));
  EXPECT_EQ(first.rate, 8000u);
  EXPECT_EQ(first.channels, 1u);
  EXPECT_THAT(first.samples, IsFedWithOnlySilenceAdded(Samples(ReadBytes(CorpusPath("hello_s16le_8000.pcm"))), 0));
  EXPECT_THAT(ReadRecording(scratch.file("out-2.wav")).samples,
              IsFedWithOnlySilenceAdded(Samples(ReadBytes(CorpusPath("hold_s16le_8000.pcm"))), 0));
}

TEST(BufplayAudio, VolumeScalesTheRecordedSamples) {
  REQUIRE_BUFPLAY();
  ScratchFolder scratch;
  const Outcome outcome =
      PlayIntoWav(scratch, {"--volume", "0.5", "--format", "pcm16k", CorpusPath("hello_s16le_16000.pcm")});
  ASSERT_EQ(outcome.exitStatus, 0) << outcome.err;
  std::vector<int16_t> halved = Samples(ReadBytes(CorpusPath("hello_s16le_16000.pcm")));
  for (int16_t& sample : halved) sample = int16_t(std::lround(sample * 0.5));
  // The gain may round either way.
  EXPECT_THAT(ReadRecording(scratch.file("out.wav")).samples, IsFedWithOnlySilenceAdded(halved, 1));
}

// What espeak-ng writes to standard output for the text: a WAV header with its sizes unset, then
// 16-bit mono samples at 22050 Hz.
std::vector<uint8_t> Synthesize(const std::string& text) {
  std::vector<uint8_t> wav;
  FILE* synthesizer = popen(("espeak-ng --stdout '" + text + "'").c_str(), "r");
  if (!synthesizer) return wav;
  char block[4096];
  for (size_t got; (got = std::fread(block, 1, sizeof block, synthesizer)) > 0;) wav.insert(wav.end(), block, block + got);
  EXPECT_EQ(pclose(synthesizer), 0) << "espeak-ng failed (scripts/setup installs it)";
  return wav;
}

TEST(BufplayAudio, SynthesizerPipeIsHeardWholeAndStartsWhileItStalls) {
  REQUIRE_BUFPLAY();
  constexpr size_t kWavHeaderBytes = 44;
  constexpr double kEspeakRate = 22050;
  const std::vector<uint8_t> wav = Synthesize("Streaming speech plays while the synthesizer is still writing it.");
  ASSERT_GT(wav.size(), kWavHeaderBytes + 88200) << "espeak-ng wrote less than two seconds";
  const double seconds = double(wav.size() - kWavHeaderBytes) / 2 / kEspeakRate;
  // The pipe stalls after a second of audio until bufplay reports sound: a bufplay that read its
  // input to the end first would never report it.
  const auto stallAt = wav.begin() + std::ptrdiff_t(kWavHeaderBytes + 2 * size_t(kEspeakRate));
  StandardInput input{{wav.begin(), stallAt}, "playProgressChanged", {stallAt, wav.end()}};
  ScratchFolder scratch;
  const Outcome outcome =
      RunBufplay({"--output", "wav:" + scratch.file("out.wav"), "--events", "-", "-"}, std::chrono::seconds(60), &input);
  ASSERT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_FALSE(input.waitedInVain) << "no sound before the stall ended";
  const Recording recording = ReadRecording(scratch.file("out.wav"));
  EXPECT_EQ(recording.rate, 16000u);
  EXPECT_NEAR(double(recording.samples.size()) / 16000, seconds, seconds * 0.05);
}

// WAV files as recorders write them, around the samples of a corpus sentence.
struct WavLayout {
  const char* name;
  uint16_t formatTag = 1;
  uint16_t channels = 1;
  uint32_t rate = 16000;
  uint16_t bits = 16;
  bool extensible = false;     // WAVE_FORMAT_EXTENSIBLE with the PCM sub-format
  bool listChunk = false;      // a LIST chunk between "fmt " and "data"
  bool oddChunk = false;       // a chunk of odd size, padded, before "data"
  bool dataSizeUnset = false;  // a streaming recorder that never went back to fill in the size
  bool dataFirst = false;      // "data" before "fmt "
  bool noData = false;
  const char* refusal = nullptr;  // the message when bufplay cannot play it
};

void PrintTo(const WavLayout& layout, std::ostream* out) { *out << layout.name; }

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
    Append(format, 0x4, 4);  // speaker position: front centre
    const uint8_t pcmGuid[16] = {1, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};
    format.insert(format.end(), pcmGuid, pcmGuid + 16);
  }
  std::vector<uint8_t> chunks;
  const auto addData = [&] {
    if (!layout.noData) AppendChunk(chunks, "data", samples, layout.dataSizeUnset ? 0 : uint32_t(samples.size()));
  };
  if (layout.dataFirst) addData();
  AppendChunk(chunks, "fmt ", format, uint32_t(format.size()));
  if (layout.listChunk) AppendChunk(chunks, "LIST", {'I', 'N', 'F', 'O', 'I', 'S', 'F', 'T', 2, 0, 0, 0, 'x', 0}, 14);
  if (layout.oddChunk) AppendChunk(chunks, "junk", {1, 2, 3}, 3);
  if (!layout.dataFirst) addData();
  std::vector<uint8_t> file{'R', 'I', 'F', 'F'};
  Append(file, uint32_t(4 + chunks.size()), 4);
  file.insert(file.end(), {'W', 'A', 'V', 'E'});
  file.insert(file.end(), chunks.begin(), chunks.end());
  return file;
}

class BufplayWavInput : public testing::TestWithParam<WavLayout> {};

TEST_P(BufplayWavInput, PlaysTheSamplesOrNamesWhatDoesNotFit) {
  REQUIRE_BUFPLAY();
  const WavLayout& layout = GetParam();
  const std::string pcm = CorpusPath(layout.rate == 8000 ? "hello_s16le_8000.pcm" : "hello_s16le_16000.pcm");
  ScratchFolder scratch;
  WriteBytes(scratch.file("in.wav"), MakeWav(layout, ReadBytes(pcm)));
  const Outcome outcome = PlayIntoWav(scratch, {scratch.file("in.wav")});
  if (layout.refusal) {
    EXPECT_EQ(outcome.exitStatus, 2);
    EXPECT_NE(outcome.err.find(layout.refusal), std::string::npos) << outcome.err;
    EXPECT_EQ(Lines(outcome.err).size(), 1u) << outcome.err;
    return;
  }
  ASSERT_EQ(outcome.exitStatus, 0) << outcome.err;
  const Recording recording = ReadRecording(scratch.file("out.wav"));
  const std::vector<int16_t> fed = Samples(ReadBytes(pcm));
  if (layout.rate == 8000 || layout.rate == 16000) {
    EXPECT_EQ(recording.rate, layout.rate);
    EXPECT_THAT(recording.samples, IsFedWithOnlySilenceAdded(fed, 0));
    return;
  }
  EXPECT_EQ(recording.rate, 16000u);
  const double seconds = double(fed.size()) / layout.rate;
  EXPECT_NEAR(double(recording.samples.size()) / 16000, seconds, 0.01 * seconds);
}

INSTANTIATE_TEST_SUITE_P(Layouts, BufplayWavInput,
                         testing::Values(WavLayout{.name = "Plain16k"}, WavLayout{.name = "Plain8k", .rate = 8000},
                                         WavLayout{.name = "ListChunkBeforeData", .listChunk = true},
                                         WavLayout{.name = "OddChunkBeforeData", .oddChunk = true},
                                         WavLayout{.name = "Extensible", .extensible = true},
                                         WavLayout{.name = "DataSizeUnset", .dataSizeUnset = true},
                                         WavLayout{.name = "Stereo", .channels = 2},
                                         WavLayout{.name = "EightBit", .bits = 8, .refusal = "8 bits"},
                                         WavLayout{.name = "Rate44k", .rate = 44100},
                                         WavLayout{.name = "Float", .formatTag = 3, .bits = 32, .refusal = "format 3"},
                                         WavLayout{.name = "DataBeforeFormat", .dataFirst = true,
                                                   .refusal = "data comes before its format"},
                                         WavLayout{.name = "NoData", .noData = true, .refusal = "without a data chunk"}),
                         [](const testing::TestParamInfo<WavLayout>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace bufplay_test
