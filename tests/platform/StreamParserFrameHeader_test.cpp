// Plan: the pure functions under the stream parser, on bytes in memory.
// - ParseMp3FrameHeader: a table of valid and invalid headers; every one of the 2^21 headers that
//   start with the sync word stays within the frame size bounds the parser's buffers rely on; every
//   frame of the corpus reads as frames.tsv describes it.
// - ProbeMp3Tag: ID3v2 (footer, bad sizes), ID3v1, APE headers and footers, and prefixes that must
//   wait for more bytes or must not.
// - IsMp3InfoFrame: every frame of the corpus is told apart as frames.tsv labels it, CRC file included.
#include <algorithm>

#include "Audio/Platform/StreamParser/Mp3FrameHeader.h"
#include "Audio/Platform/StreamParser/Mp3Tags.h"
#include "platform/StreamParserTestSupport.h"

namespace stream_parser_test {
namespace {

struct HeaderCase {
  uint8_t bytes[4];
  Mp3Version version;
  uint32_t bitrate;
  uint32_t sampleRate;
  uint32_t channels;
  bool hasCrc;
  uint32_t frameBytes;
  uint32_t samplesPerFrame;
};

TEST(StreamParserFrameHeader, ReadsValidLayerIIIHeaders) {
  const HeaderCase cases[] = {
      // MPEG-1 128 kbit/s 44.1 kHz joint stereo, then with padding: 144 * 128000 / 44100 = 417.
      {{0xFF, 0xFB, 0x90, 0x64}, Mp3Version::Mpeg1, 128000, 44100, 2, false, 417, 1152},
      {{0xFF, 0xFB, 0x92, 0x64}, Mp3Version::Mpeg1, 128000, 44100, 2, false, 418, 1152},
      // MPEG-1 320 kbit/s 32 kHz dual channel, padded, with CRC: the largest frame.
      {{0xFF, 0xFA, 0xEA, 0x80}, Mp3Version::Mpeg1, 320000, 32000, 2, true, 1441, 1152},
      // MPEG-2 48 kbit/s 16 kHz mono, as LAME writes speech.
      {{0xFF, 0xF3, 0x68, 0xC4}, Mp3Version::Mpeg2, 48000, 16000, 1, false, 216, 576},
      // MPEG-2 8 kbit/s 24 kHz mono with CRC: the smallest frame.
      {{0xFF, 0xF2, 0x14, 0xC0}, Mp3Version::Mpeg2, 8000, 24000, 1, true, 24, 576},
      // MPEG-2.5 16 kbit/s 8 kHz mono.
      {{0xFF, 0xE3, 0x28, 0xC4}, Mp3Version::Mpeg25, 16000, 8000, 1, false, 144, 576},
      // MPEG-2.5 160 kbit/s 8 kHz stereo, padded: as large as MPEG-1's largest.
      {{0xFF, 0xE3, 0xEA, 0x00}, Mp3Version::Mpeg25, 160000, 8000, 2, false, 1441, 576},
      // MPEG-2 22.05 kHz: the frame size rounds down before the padding byte.
      {{0xFF, 0xF3, 0x40, 0x40}, Mp3Version::Mpeg2, 32000, 22050, 2, false, 104, 576},
  };
  for (const HeaderCase& expected : cases) {
    SCOPED_TRACE(testing::PrintToString(std::vector<int>(expected.bytes, expected.bytes + 4)));
    const std::optional<Mp3FrameHeader> header = ParseMp3FrameHeader(expected.bytes);
    ASSERT_TRUE(header.has_value());
    EXPECT_EQ(expected.version, header->version);
    EXPECT_EQ(expected.bitrate, header->bitrate);
    EXPECT_EQ(expected.sampleRate, header->sampleRate);
    EXPECT_EQ(expected.channels, header->channels);
    EXPECT_EQ(expected.hasCrc, header->hasCrc);
    EXPECT_EQ(expected.frameBytes, header->frameBytes);
    EXPECT_EQ(expected.samplesPerFrame, header->samplesPerFrame);
  }
}

TEST(StreamParserFrameHeader, RefusesWhatIsNotALayerIIIHeader) {
  const struct {
    const char* why;
    uint8_t bytes[4];
  } cases[] = {
      {"no sync byte", {0xFE, 0xFB, 0x90, 0x64}},
      {"sync word cut short", {0xFF, 0xDB, 0x90, 0x64}},
      {"reserved version", {0xFF, 0xEB, 0x90, 0x64}},
      {"layer I", {0xFF, 0xFF, 0x90, 0x64}},
      {"layer II", {0xFF, 0xFD, 0x90, 0x64}},
      {"reserved layer", {0xFF, 0xF9, 0x90, 0x64}},
      {"free-format bitrate", {0xFF, 0xFB, 0x00, 0x64}},
      {"reserved bitrate", {0xFF, 0xFB, 0xF0, 0x64}},
      {"reserved sample rate", {0xFF, 0xFB, 0x9C, 0x64}},
      {"reserved emphasis", {0xFF, 0xFB, 0x90, 0x66}},
  };
  for (const auto& refused : cases) {
    EXPECT_FALSE(ParseMp3FrameHeader(refused.bytes).has_value()) << refused.why;
  }
}

TEST(StreamParserFrameHeader, EveryHeaderStaysWithinTheFrameSizeBounds) {
  uint32_t smallest = UINT32_MAX;
  uint32_t largest = 0;
  for (uint32_t rest = 0; rest < (1u << 21); ++rest) {
    const uint32_t word = 0xFFE00000u | rest;
    const uint8_t bytes[4] = {uint8_t(word >> 24), uint8_t(word >> 16), uint8_t(word >> 8), uint8_t(word)};
    const std::optional<Mp3FrameHeader> header = ParseMp3FrameHeader(bytes);
    if (!header) continue;
    smallest = std::min(smallest, header->frameBytes);
    largest = std::max(largest, header->frameBytes);
    ASSERT_EQ(header->version == Mp3Version::Mpeg1 ? 1152u : 576u, header->samplesPerFrame);
  }
  EXPECT_EQ(kMp3MinFrameBytes, smallest);
  EXPECT_EQ(kMp3MaxFrameBytes, largest);
}

TEST(StreamParserFrameHeader, ReadsEveryCorpusFrameAsListedAndTellsInfoFramesApart) {
  for (const auto& row : ReadTsv("MANIFEST.tsv")) {
    const std::string& name = row.at("file");
    if (name.starts_with("bad_") || !name.ends_with(".mp3")) continue;
    const Bytes file = ReadCorpusFile(name);
    for (const CorpusFrame& frame : ReadCorpusFrames(name)) {
      SCOPED_TRACE(name + " at " + std::to_string(frame.offset));
      const std::optional<Mp3FrameHeader> header = ParseMp3FrameHeader(&file[frame.offset]);
      ASSERT_TRUE(header.has_value());
      const Mp3Version version = frame.mpeg == 1   ? Mp3Version::Mpeg1
                                 : frame.mpeg == 2 ? Mp3Version::Mpeg2
                                                   : Mp3Version::Mpeg25;
      EXPECT_EQ(version, header->version);
      EXPECT_EQ(frame.rate, header->sampleRate);
      EXPECT_EQ(frame.channels, header->channels);
      EXPECT_EQ(frame.kbps * 1000, header->bitrate);
      EXPECT_EQ(frame.crc, header->hasCrc);
      EXPECT_EQ(frame.size, header->frameBytes);
      EXPECT_EQ(frame.kind.rfind("info:", 0) == 0, IsMp3InfoFrame(&file[frame.offset], *header));
    }
  }
}

TEST(StreamParserFrameHeader, FindsVbriAndXingFramesAtTheirOffsets) {
  const struct {
    const char* what;
    uint8_t header[4];
    size_t tagOffset;
    const char* tag;
    bool isInfo;
  } cases[] = {
      {"Xing after MPEG-1 stereo side info", {0xFF, 0xFB, 0x90, 0x64}, 36, "Xing", true},
      {"Xing after MPEG-1 mono side info", {0xFF, 0xFB, 0x90, 0xC4}, 21, "Xing", true},
      {"Info after MPEG-2 stereo side info", {0xFF, 0xF3, 0x68, 0x44}, 21, "Info", true},
      {"Info after the CRC", {0xFF, 0xF2, 0x68, 0xC4}, 15, "Info", true},
      {"VBRI 32 bytes after the header", {0xFF, 0xF3, 0x68, 0xC4}, 36, "VBRI", true},
      {"Xing at the wrong offset", {0xFF, 0xFB, 0x90, 0x64}, 21, "Xing", false},
      {"another word", {0xFF, 0xF3, 0x68, 0xC4}, 13, "Lame", false},
  };
  for (const auto& example : cases) {
    Bytes frame(kMp3MaxFrameBytes, 0);
    std::copy(example.header, example.header + 4, frame.begin());
    std::copy(example.tag, example.tag + 4, frame.begin() + example.tagOffset);
    const std::optional<Mp3FrameHeader> header = ParseMp3FrameHeader(frame.data());
    ASSERT_TRUE(header.has_value()) << example.what;
    EXPECT_EQ(example.isInfo, IsMp3InfoFrame(frame.data(), *header)) << example.what;
  }
}

TEST(StreamParserFrameHeader, ProbesTagsAndWaitsOnlyOnTheirPrefixes) {
  const auto bytes = [](std::initializer_list<int> values) { return Bytes(values.begin(), values.end()); };
  const auto text = [](const std::string& s) { return Bytes(s.begin(), s.end()); };
  const auto id3 = [&](std::initializer_list<int> header) { return Join({text("ID3"), bytes(header)}); };
  const struct {
    const char* what;
    Bytes bytes;
    Mp3TagProbe::Kind kind;
    uint64_t tagBytes;
  } cases[] = {
      {"ID3v2.3, 257 bytes after the header", id3({3, 0, 0, 0, 0, 2, 1}), Mp3TagProbe::Tag,
       10 + 257},
      {"ID3v2.4 with a footer", id3({4, 0, 0x10, 0, 0, 0, 5}), Mp3TagProbe::Tag, 25},
      {"ID3v2.3 ignores the footer flag", id3({3, 0, 0x10, 0, 0, 0, 5}), Mp3TagProbe::Tag, 15},
      {"ID3v2 of the largest size", id3({3, 0, 0, 0x7F, 0x7F, 0x7F, 0x7F}), Mp3TagProbe::Tag,
       10 + 0x0FFFFFFF},
      {"ID3v2 size not syncsafe", id3({3, 0, 0, 0x80, 0x81, 0x90, 0xFF}), Mp3TagProbe::NotATag,
       0},
      {"ID3v2 of an unknown version", id3({5, 0, 0, 0, 0, 0, 5}), Mp3TagProbe::NotATag, 0},
      {"ID3v2 header cut short", id3({3, 0}), Mp3TagProbe::NeedMore, 0},
      {"one byte that may start ID3", text("I"), Mp3TagProbe::NeedMore, 0},
      {"a prefix already ruled out", text("IX"), Mp3TagProbe::NotATag, 0},
      {"ID3v1", text("TAG"), Mp3TagProbe::Tag, 128},
      {"ID3v1 cut short", text("TA"), Mp3TagProbe::NeedMore, 0},
      {"APE header", ApeHeader(2000, 100, 1u << 29 | 1u << 31), Mp3TagProbe::Tag, 132},
      {"APE footer", ApeHeader(2000, 100, 1u << 31), Mp3TagProbe::Tag, 32},
      {"APEv1 footer", ApeHeader(1000, 64, 0), Mp3TagProbe::Tag, 32},
      {"APE of an unknown version", ApeHeader(3000, 100, 1u << 29), Mp3TagProbe::NotATag, 0},
      {"APE smaller than its footer", ApeHeader(2000, 31, 1u << 29), Mp3TagProbe::NotATag, 0},
      {"APE header cut short", text("APETAGEX\xD0\x07"), Mp3TagProbe::NeedMore, 0},
      {"APE prefix ruled out", text("APETAGEY"), Mp3TagProbe::NotATag, 0},
      {"a frame header", bytes({0xFF, 0xF3, 0x68, 0xC4}), Mp3TagProbe::NotATag, 0},
  };
  for (const auto& example : cases) {
    const Mp3TagProbe probe = ProbeMp3Tag(example.bytes.data(), example.bytes.size());
    EXPECT_EQ(example.kind, probe.kind) << example.what;
    EXPECT_EQ(example.tagBytes, probe.tagBytes) << example.what;
  }
}

}  // namespace
}  // namespace stream_parser_test
