// Plan: bad input to the real player on the real platform, one row per kind of input: what
// playData and appendAudioData return, which report ends the sentence, and what each output queue
// recorded. These rows back the bad-input table (docs-bad-input.md); rows that other tests cover
// are named there, not repeated here. The WAV output runs faster than real time.
// Not here: the decoded MP3 samples themselves (the reference-decode tests), only how many.
#include <gmock/gmock.h>

#include <random>

#include "e2e/PlayerSentence.h"

namespace bufplay_test {
namespace {

constexpr AudioBufPlayerError OK = AudioBufPlayerError_OK;
constexpr size_t kMp3FrameSamples = 576;  // MPEG-2 and 2.5

struct Heard {
  uint32_t rate;
  size_t samples;    // MP3: at least these; more only as silence where the queue ran dry
  bool cut = false;  // the queue was let go early: less than samples were heard
};

// Rows fed in several calls play at twice real time: the first buffer then plays out long after
// the producer's next calls, even under a sanitizer on a busy machine, so none meets the run-out
// point early.
constexpr double kSeveralChunksSpeed = 2.0;

struct Row {
  const char* name;
  std::vector<Chunk> chunks;
  std::vector<AudioBufPlayerError> results;
  std::string endReport;  // the report that ends the sentence; empty: none ever does
  AudioBufPlayerError reported = OK;  // the error of the one PlayerError report, when there is one
  std::vector<Heard> heard{};         // per output queue; a PCM row also compares the samples
  std::vector<uint8_t> pcmHeard{};
  double speed = 20.0;
};

std::vector<uint8_t> Corpus(const std::string& name) { return ReadBytes(CorpusPath(name)); }

std::vector<uint8_t> Slice(const std::vector<uint8_t>& bytes, size_t from, size_t to) {
  return std::vector<uint8_t>(bytes.begin() + std::ptrdiff_t(from), bytes.begin() + std::ptrdiff_t(to));
}

std::vector<uint8_t> Concatenated(std::initializer_list<std::vector<uint8_t>> parts) {
  std::vector<uint8_t> all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

std::vector<uint8_t> RandomBytes(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(count);
  for (uint8_t& byte : bytes) byte = uint8_t(random());
  return bytes;
}

// A sentence repeated up to `count` bytes.
std::vector<uint8_t> Repeated(const std::vector<uint8_t>& sentence, size_t count) {
  std::vector<uint8_t> bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = sentence[i % sentence.size()];
  return bytes;
}

// The smallest Layer III frames: MPEG-2, 8 kbit/s, 24 kHz, mono, 24 bytes of silence each.
std::vector<uint8_t> TinyFrames(size_t count) {
  std::vector<uint8_t> frame(24, 0);
  frame[0] = 0xFF;
  frame[1] = 0xF3;
  frame[2] = 0x14;
  frame[3] = 0xC0;
  return Repeated(frame, 24 * count);
}

std::vector<Row> Rows() {
  const auto hello16k = Corpus("hello_s16le_16000.pcm");
  const auto hello8k = Corpus("hello_s16le_8000.pcm");
  const auto helloMp3 = Corpus("hello_m2_16k_cbr32_lame_id3v1.mp3");
  const auto garbage = Corpus("bad_random_bytes_16k.mp3");
  const auto fox16k = Corpus("fox_m2_16k_cbr32_lame.mp3");  // 92 frames, no Info frame
  const auto concat = Corpus("concat_hello_16k_then_hold_24k.mp3");  // 24 kHz from byte 6480
  const auto tenMegabytes = Repeated(hello8k, 10 << 20);
  return {
      {"EmptyAndNullChunksInASentence",
       {{Slice(hello16k, 0, 10000), kPCM16K}, {{}, kPCM16K}, {Slice(hello16k, 10000, hello16k.size()), kPCM16K},
        {{}, kMP3}},
       {OK, OK, OK, AudioBufPlayerError_SWITCH_FORMAT},
       "PlaybackFinished",
       OK,
       {{16000, hello16k.size() / 2}},
       hello16k,
       kSeveralChunksSpeed},
      {"OddAndOneByteChunksStayAligned",
       {{Slice(hello16k, 0, 10001), kPCM16K}, {Slice(hello16k, 10001, 10002), kPCM16K},
        {Slice(hello16k, 10002, 10005), kPCM16K}, {Slice(hello16k, 10005, hello16k.size()), kPCM16K}},
       {OK, OK, OK, OK},
       "PlaybackFinished",
       OK,
       {{16000, hello16k.size() / 2}},
       hello16k,
       kSeveralChunksSpeed},
      {"TenMegabyteChunk", {{tenMegabytes, kPCM8K}}, {OK}, "PlaybackFinished", OK,
       {{8000, tenMegabytes.size() / 2}}, tenMegabytes, 400.0},
      {"TenMegabytesOfGarbageAsMp3", {{RandomBytes(10 << 20, 7), kMP3}}, {AudioBufPlayerError_FAILED_PARSE_STREAM},
       "PlayerError", AudioBufPlayerError_FAILED_PARSE_STREAM},
      {"UnsupportedFormats",
       {{hello16k, QEN_TTS::Audio::EAudioPlayerAudioFormat_WAV},
        {hello16k, QEN_TTS::Audio::EAudioPlayerAudioFormat_ALAW},
        {hello16k, Format(77)}},
       {AudioBufPlayerError_UNSUPPORTED_FORMAT, AudioBufPlayerError_UNSUPPORTED_FORMAT,
        AudioBufPlayerError_UNSUPPORTED_FORMAT},
       ""},
      {"FormatSwitchesMidSentence",
       {{Slice(hello16k, 0, 10000), kPCM16K}, {hello8k, kPCM8K}, {helloMp3, kMP3},
        {Slice(hello16k, 10000, hello16k.size()), kPCM16K}},
       {OK, AudioBufPlayerError_SWITCH_FORMAT, AudioBufPlayerError_SWITCH_FORMAT, OK},
       "PlaybackFinished",
       OK,
       {{16000, hello16k.size() / 2}},
       hello16k,
       kSeveralChunksSpeed},
      {"GarbageAsMp3", {{garbage, kMP3}}, {AudioBufPlayerError_FAILED_PARSE_STREAM}, "PlayerError",
       AudioBufPlayerError_FAILED_PARSE_STREAM},
      // The append that crosses 4 KiB fails the stream and ends the sentence: the next append starts
      // a new one.
      {"GarbageAsMp3InSmallChunks",
       {{Slice(garbage, 0, 2000), kMP3}, {Slice(garbage, 2000, 4000), kMP3}, {Slice(garbage, 4000, 6000), kMP3},
        {hello16k, kPCM16K}},
       {OK, OK, AudioBufPlayerError_FAILED_PARSE_STREAM, OK},
       "PlaybackFinished",
       AudioBufPlayerError_FAILED_PARSE_STREAM,
       {{16000, hello16k.size() / 2}},
       hello16k,
       kSeveralChunksSpeed},
      {"GarbageUnder4KiBAsMp3", {{Slice(garbage, 0, 4000), kMP3}}, {OK}, ""},
      {"TruncatedFrame", {{Corpus("bad_truncated_midframe.mp3"), kMP3}}, {OK}, "PlaybackFinished", OK,
       {{16000, 40 * kMp3FrameSamples}}},
      {"JunkBetweenFrames", {{Corpus("bad_garbage1k_inserted.mp3"), kMP3}}, {OK}, "PlaybackFinished", OK,
       {{16000, 92 * kMp3FrameSamples}}},
      {"HugeId3Tag", {{Corpus("fox_m2_16k_cbr48_lame_bigid3v23_apic.mp3"), kMP3}}, {OK}, "PlaybackFinished", OK,
       {{16000, 92 * kMp3FrameSamples}}},
      {"Id3TagLongerThanTheStream", {{Corpus("bad_id3_size_beyond_eof.mp3"), kMP3}}, {OK}, ""},
      // More 16 kHz audio than the 20 buffers hold, so that every buffer is in flight when the rate
      // changes; what the first queue still held is cut. The Info frame that opens the 24 kHz part
      // plays nothing.
      {"SampleRateChangeMidStream",
       {{Concatenated({Repeated(fox16k, 9 * fox16k.size()), Slice(concat, 6480, concat.size())}), kMP3}}, {OK},
       "PlaybackFinished", OK, {{16000, 9 * 92 * kMp3FrameSamples, true}, {24000, 99 * kMp3FrameSamples}}},
      {"MoreThan512TinyPacketsInOneChunk", {{TinyFrames(600), kMP3}}, {OK}, "PlaybackFinished", OK,
       {{24000, 600 * kMp3FrameSamples}}},
  };
}

TEST(PlayerBadInput, EachKindOfBadInputEndsAsTheTableSays) {
  for (const Row& row : Rows()) {
    SCOPED_TRACE(row.name);
    const SentenceOutcome outcome = PlaySentence(row.chunks, row.endReport, row.speed);
    EXPECT_EQ(outcome.results, row.results);

    std::vector<std::string> ends;
    for (const DelegateEvent& event : outcome.events) {
      if (event.name == "PlaybackFinished" || event.name == "PlayerError") ends.push_back(event.name);
      if (event.name == "PlayerError") {
        EXPECT_EQ(event.error, row.reported) << event.description;
      }
    }
    std::vector<std::string> expectedEnds;
    if (!row.endReport.empty()) expectedEnds.push_back(row.endReport);
    if (row.reported != OK && row.endReport != "PlayerError") expectedEnds.push_back("PlayerError");
    EXPECT_THAT(ends, testing::UnorderedElementsAreArray(expectedEnds));

    ASSERT_EQ(outcome.recordings.size(), row.heard.size());
    for (size_t i = 0; i < row.heard.size(); ++i) {
      EXPECT_EQ(outcome.recordings[i].rate, row.heard[i].rate);
      if (!row.pcmHeard.empty()) {
        EXPECT_THAT(outcome.recordings[i].samples, IsFedWithOnlySilenceAdded(Samples(row.pcmHeard), 0));
      } else if (row.heard[i].cut) {
        EXPECT_LT(outcome.recordings[i].samples.size(), row.heard[i].samples);
      } else {
        EXPECT_GE(outcome.recordings[i].samples.size(), row.heard[i].samples);
      }
    }
  }
}

}  // namespace
}  // namespace bufplay_test
