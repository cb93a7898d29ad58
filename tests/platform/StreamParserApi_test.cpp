// The AudioFileStream calls as a player uses them, on streams assembled from corpus frames.
#include "platform/StreamParserTestSupport.h"

namespace stream_parser_test {
namespace {

// 92 frames, MPEG-2 16 kHz mono, no Info frame.
const char* const k16kMono = "fox_m2_16k_cbr48_lame_noinfo.mp3";
// MPEG-2 24 kHz mono (its Xing frame is left out).
const char* const k24kMono = "hold_m2_24k_vbr_lame_xing.mp3";
// MPEG-1 44.1 kHz stereo (its Info frame is left out).
const char* const k44kStereo = "hello_m1_44k_stereo_cbr128_lame_id3v23_id3v1.mp3";

std::vector<Bytes> Frames(const std::string& file, size_t first, size_t count) {
  const std::vector<Bytes> frames = AudioFrameBytes(file);
  return std::vector<Bytes>(frames.begin() + long(first), frames.begin() + long(first + count));
}

std::vector<Bytes> Concat(std::vector<Bytes> a, const std::vector<Bytes>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes Id3v2(const Bytes& body) {
  const auto size = uint32_t(body.size());
  Bytes tag = {'I', 'D', '3', 3, 0, 0, uint8_t(size >> 21 & 0x7F), uint8_t(size >> 14 & 0x7F),
               uint8_t(size >> 7 & 0x7F), uint8_t(size & 0x7F)};
  tag.insert(tag.end(), body.begin(), body.end());
  return tag;
}

Bytes Ape(const Bytes& body) {
  const auto size = uint32_t(body.size() + 32);
  return Join({ApeHeader(2000, size, 1u << 31 | 1u << 29), body, ApeHeader(2000, size, 1u << 31)});
}

Bytes Zeros(size_t count) { return Bytes(count, 0); }

// Junk with a 16 kHz frame header every 50 bytes (not at its start, where a locked parser would take
// it for the next frame), none of them confirmed by a header one frame on: each keeps the parser
// looking ahead while it searches through them.
Bytes FalseSyncs(size_t count) {
  Bytes junk(count, 0);
  const uint8_t header[4] = {0xFF, 0xF3, 0x68, 0xC4};
  for (size_t at = 25; at + 4 <= count; at += 50) std::copy(header, header + 4, junk.begin() + long(at));
  return junk;
}

TEST(StreamParserApi, FindsFramesAmongTagsJunkAndFormatChanges) {
  const std::vector<Bytes> a = Frames(k16kMono, 0, 10);
  const std::vector<Bytes> b = Frames(k16kMono, 10, 10);
  const std::vector<Bytes> other = Frames(k24kMono, 0, 10);
  const std::vector<Bytes> stereo = Frames(k44kStereo, 0, 10);
  const ReportedFormat mono16k{0, 16000, 1, 576};
  const std::vector<Bytes> ab = Concat(a, b);
  const struct {
    const char* what;
    Bytes stream;
    std::vector<Bytes> packets;
    std::vector<ReportedFormat> formats;
    bool fails;
  } cases[] = {
      {"4096 bytes of junk before the first frame", Join({Zeros(4096), Join(a)}), a, {mono16k}, false},
      {"4097 bytes of junk before the first frame", Join({Zeros(4097), Join(a)}), {}, {}, true},
      {"a tag, then 4096 bytes of junk", Join({Id3v2(Zeros(5000)), Zeros(4096), Join(a)}), a, {mono16k}, false},
      {"tags full of 24 kHz frames before, between and after the frames",
       Join({Ape(Join(other)), Join(a), Id3v2(Join(other)), Join(b), Ape(Join(other))}), ab, {mono16k}, false},
      {"false syncs packed in the junk between frames", Join({Join(a), FalseSyncs(10000), Join(b)}), ab, {mono16k},
       false},
      {"a lone frame of another rate between frames", Join({Join(a), other[0], Join(b)}), ab, {mono16k}, false},
      {"a change of rate and channel count", Join({Join(a), Join(stereo)}), Concat(a, stereo),
       {mono16k, {10, 44100, 2, 1152}}, false},
  };
  for (const auto& example : cases) {
    for (const size_t chunk : {example.stream.size(), size_t(1)}) {
      SCOPED_TRACE(std::string(example.what) + (chunk == 1 ? ", one byte at a time" : ", whole"));
      const ParsedStream parsed = ParseInChunks(example.stream, [&] { return chunk; });
      EXPECT_TRUE(example.packets == parsed.packets) << parsed.packets.size() << " packets";
      EXPECT_EQ(example.formats, parsed.formats);
      EXPECT_EQ(example.fails, parsed.failed);
    }
  }
}

void IgnoreProperty(void*, AudioFileStreamID, AudioFileStreamPropertyID, uint32_t*) {}
void IgnorePackets(void*, uint32_t, uint32_t, const void*, AudioStreamPacketDescription*) {}

TEST(StreamParserApi, BadHandlesArgumentsAndPropertiesGiveTheirStatus) {
  AudioFileStreamID closed = nullptr;
  ASSERT_EQ(noErr, AudioFileStreamOpen(nullptr, IgnoreProperty, IgnorePackets, 0, &closed));
  ASSERT_EQ(noErr, AudioFileStreamClose(closed));
  AudioFileStreamID stream = nullptr;  // may take the closed one's memory, never its handle
  ASSERT_EQ(noErr, AudioFileStreamOpen(nullptr, IgnoreProperty, IgnorePackets, 0, &stream));
  AudioFileStreamID refused = nullptr;
  AudioStreamBasicDescription format{};
  uint32_t size = 0;
  const uint8_t byte = 0xFF;
  const auto get = [&](AudioFileStreamPropertyID id, uint32_t room, void* into) {
    size = room;
    return AudioFileStreamGetProperty(stream, id, &size, into);
  };
  const AudioFileStreamPropertyID kFormat = kAudioFileStreamProperty_DataFormat;
  struct Case {
    const char* call;
    OSStatus status;
    OSStatus expected;
  };
  std::vector<Case> cases = {
      {"parse a closed handle", AudioFileStreamParseBytes(closed, 1, &byte, 0), kAudioFileStreamError_InvalidStream},
      {"open a WAVE file", AudioFileStreamOpen(nullptr, IgnoreProperty, IgnorePackets, FourCC("WAVE"), &refused),
       kAudioFileStreamError_UnsupportedFileType},
      {"null bytes", AudioFileStreamParseBytes(stream, 1, nullptr, 0), kAudioFileStreamError_IllegalOperation},
      {"format before it is known", get(kFormat, sizeof format, &format), kAudioFileStreamError_DataUnavailable},
  };
  const Bytes frames = Join(Frames(k16kMono, 0, 3));
  ASSERT_EQ(noErr, AudioFileStreamParseBytes(stream, uint32_t(frames.size()), frames.data(), 0));
  cases.insert(cases.end(), {
      {"format into too little room", get(kFormat, sizeof format - 1, &format), kAudioFileStreamError_BadPropertySize},
      {"an unknown property", get(FourCC("dunk"), sizeof format, &format), kAudioFileStreamError_UnsupportedProperty},
  });
  for (const Case& test : cases) EXPECT_EQ(test.status, test.expected) << test.call;
  EXPECT_EQ(nullptr, refused);
  EXPECT_EQ(noErr, AudioFileStreamClose(stream));
}

}  // namespace
}  // namespace stream_parser_test
