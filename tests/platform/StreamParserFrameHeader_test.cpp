// Frame headers and tags on bytes in memory; the corpus test covers Xing/Info frames.
#include <algorithm>

#include "Audio/Platform/StreamParser/Mp3FrameHeader.h"
#include "Audio/Platform/StreamParser/Mp3Tags.h"
#include "platform/StreamParserTestSupport.h"

namespace stream_parser_test {
namespace {

// Every field a header can hold: a wrongly refused or accepted value changes the count, and no
// header may lie outside the frame sizes the parser's buffers are made for.
TEST(StreamParserFrameHeader, TakesEveryLayerIIIHeaderAndNoOtherWithinTheFrameSizeBounds) {
  uint32_t valid = 0;
  uint32_t smallest = UINT32_MAX;
  uint32_t largest = 0;
  for (uint32_t word = 0xFFC00000u; word != 0; ++word) {
    const uint8_t bytes[4] = {uint8_t(word >> 24), uint8_t(word >> 16), uint8_t(word >> 8), uint8_t(word)};
    const std::optional<Mp3FrameHeader> header = ParseMp3FrameHeader(bytes);
    if (!header) continue;
    ++valid;
    smallest = std::min(smallest, header->frameBytes);
    largest = std::max(largest, header->frameBytes);
    ASSERT_EQ(header->version == Mp3Version::Mpeg1 ? 1152u : 576u, header->samplesPerFrame);
  }
  // Versions 3 of 4, layer III, CRC or not, bitrates 14 of 16, rates 3 of 4, padding, private bit,
  // 4 channel modes, 4 mode extensions, copyright, original, emphases 3 of 4.
  EXPECT_EQ(3u * 2 * 14 * 3 * 2 * 2 * 4 * 4 * 2 * 2 * 3, valid);
  EXPECT_EQ(kMp3MinFrameBytes, smallest);
  EXPECT_EQ(kMp3MaxFrameBytes, largest);
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
      {"ID3v2.3, 257 bytes after the header", id3({3, 0, 0, 0, 0, 2, 1}), Mp3TagProbe::Tag, 267},
      {"ID3v2.4 with a footer", id3({4, 0, 0x10, 0, 0, 0, 5}), Mp3TagProbe::Tag, 25},
      {"ID3v2.3 ignores the footer flag", id3({3, 0, 0x10, 0, 0, 0, 5}), Mp3TagProbe::Tag, 15},
      {"ID3v2 size not syncsafe", id3({3, 0, 0, 0x80, 0x81, 0x90, 0xFF}), Mp3TagProbe::NotATag, 0},
      {"ID3v2 header cut short", id3({3, 0}), Mp3TagProbe::NeedMore, 0},
      {"a prefix already ruled out", text("IX"), Mp3TagProbe::NotATag, 0},
      {"ID3v1", text("TAG"), Mp3TagProbe::Tag, 128},
      {"APE header", ApeHeader(2000, 100, 1u << 29 | 1u << 31), Mp3TagProbe::Tag, 132},
      {"APE footer", ApeHeader(2000, 100, 1u << 31), Mp3TagProbe::Tag, 32},
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
