// Plan: the real parser over every MP3 of the corpus, read through MANIFEST.tsv at run time.
// - Good files: the packets are exactly the frames of <name>.frames.tsv (offsets, sizes, bytes) but a
//   leading Xing/Info frame, their number is the manifest's frame count, and the format is reported
//   before the first packet and again where the rate changes.
// - Every file, damaged ones included: the same packets and format reports whatever the chunking.
// - Damaged files end as the manifest's "expected" column says.
// Not here: memory use (a bogus tag size must not allocate; benchmarks and ASan runs watch that).
#include <random>

#include "platform/StreamParserTestSupport.h"

namespace stream_parser_test {
namespace {

// The manifest's rows of MP3 files, the damaged ones included or not.
std::vector<std::map<std::string, std::string>> Mp3Rows(bool includeDamaged) {
  std::vector<std::map<std::string, std::string>> rows = ReadTsv("MANIFEST.tsv");
  std::erase_if(rows, [&](const auto& row) {
    return !row.at("file").ends_with(".mp3") || (!includeDamaged && row.at("file").starts_with("bad_"));
  });
  return rows;
}

// The format reports a player must see: before the first packet, and before every packet whose
// rate or channel count differs from the one before it.
std::vector<ReportedFormat> ExpectedFormats(const std::vector<CorpusFrame>& frames) {
  std::vector<ReportedFormat> formats;
  for (size_t i = 0; i < frames.size(); ++i) {
    const CorpusFrame& frame = frames[i];
    if (i == 0 || frame.rate != frames[i - 1].rate || frame.channels != frames[i - 1].channels) {
      formats.push_back({i, double(frame.rate), frame.channels, frame.mpeg == 1 ? 1152u : 576u});
    }
  }
  return formats;
}

TEST(StreamParserCorpus, GoodFilesDeliverEveryAudioFrameInPlaceAfterTheFormatOfItsRate) {
  const auto rows = Mp3Rows(false);
  EXPECT_GE(rows.size(), 11u) << "an empty or misread manifest";
  for (const auto& row : rows) {
    SCOPED_TRACE(row.at("file"));
    const Bytes file = ReadCorpusFile(row.at("file"));
    const std::vector<CorpusFrame> frames = AudioFrames(row.at("file"));
    const ParsedStream parsed = ParseInChunks(file);

    EXPECT_EQ(std::vector<std::string>{}, parsed.faults);
    EXPECT_FALSE(parsed.Failed());
    EXPECT_EQ(row.at("frames"), std::to_string(parsed.packets.size()));
    std::vector<int64_t> offsets;
    for (const CorpusFrame& frame : frames) offsets.push_back(int64_t(frame.offset));
    EXPECT_EQ(offsets, parsed.offsets);
    EXPECT_TRUE(FrameBytes(file, frames) == parsed.packets);
    EXPECT_EQ(ExpectedFormats(frames), parsed.formats);
  }
}

TEST(StreamParserCorpus, AnyFileGivesTheSamePacketsAndFormatsWhateverTheChunking) {
  struct Chunking {
    const char* name;
    size_t smallest;
    size_t largest;
    unsigned seed;
  };
  const Chunking chunkings[] = {
      {"one byte at a time", 1, 1, 0},    {"1..7 bytes, seed 1", 1, 7, 1},     {"1..7 bytes, seed 2", 1, 7, 2},
      {"1..7 bytes, seed 3", 1, 7, 3},    {"1..600 bytes, seed 4", 1, 600, 4}, {"1..3000 bytes, seed 5", 1, 3000, 5},
      {"1..64 KiB, seed 6", 1, 65536, 6}, {"4 KiB + 1 bytes", 4097, 4097, 0},
  };
  const auto rows = Mp3Rows(true);
  EXPECT_GE(rows.size(), 17u) << "an empty or misread manifest";
  for (const auto& row : rows) {
    const Bytes file = ReadCorpusFile(row.at("file"));
    const ParsedStream whole = ParseInChunks(file);
    for (const Chunking& chunking : chunkings) {
      SCOPED_TRACE(row.at("file") + ", " + chunking.name);
      std::mt19937 random(chunking.seed);
      std::uniform_int_distribution<size_t> sizes(chunking.smallest, chunking.largest);
      const ParsedStream chunked = ParseInChunks(file, [&] { return sizes(random); });

      EXPECT_EQ(std::vector<std::string>{}, chunked.faults);
      EXPECT_EQ(whole.packets.size(), chunked.packets.size());
      EXPECT_TRUE(whole.packets == chunked.packets);
      EXPECT_EQ(whole.formats, chunked.formats);
      EXPECT_EQ(whole.Failed(), chunked.Failed());
    }
  }
}

// A damaged file and what must come of it: the packets are those of a good file (all of its audio
// frames, or the first few), and the stream fails or not.
struct DamagedCase {
  const char* file;
  bool fails;
  const char* framesOf;  // nullptr: no packet and no format at all
  size_t frameCount;     // of framesOf's audio frames; 0 for all
};

TEST(StreamParserCorpus, DamagedFilesEndAsExpected) {
  const DamagedCase cases[] = {
      // No frame within the first 4 KiB of junk: an error, and no format from a lone false sync.
      {"bad_random_bytes_16k.mp3", true, nullptr, 0},
      {"bad_empty.mp3", false, nullptr, 0},
      // The tag claims the whole file: every byte is swallowed, quietly.
      {"bad_id3_size_beyond_eof.mp3", false, nullptr, 0},
      // An invalid tag header is 10 bytes of junk; the Info frame after it still starts the stream.
      {"bad_id3_size_not_syncsafe.mp3", false, "hold_m2_16k_cbr48_lame_info.mp3", 0},
      {"bad_garbage1k_inserted.mp3", false, "fox_m2_16k_cbr32_lame.mp3", 0},
      // The half frame at the end never completes.
      {"bad_truncated_midframe.mp3", false, "hold_m2_16k_cbr48_lame_info.mp3", 40},
  };
  for (const DamagedCase& damaged : cases) {
    SCOPED_TRACE(damaged.file);
    ParserRecorder recorder;
    const Bytes file = ReadCorpusFile(damaged.file);
    recorder.Feed(file, 0, file.size());
    recorder.Feed(file, file.size(), 0);  // an empty call after the end changes nothing
    const ParsedStream& parsed = recorder.parsed();

    EXPECT_EQ(std::vector<std::string>{}, parsed.faults);
    EXPECT_EQ(damaged.fails, parsed.Failed());
    if (damaged.fails) {
      EXPECT_EQ(kAudioFileStreamError_InvalidFile, parsed.statuses.back()) << "a failed stream keeps failing";
    }
    std::vector<Bytes> expected;
    if (damaged.framesOf != nullptr) expected = AudioFrameBytes(damaged.framesOf);
    if (damaged.frameCount != 0) expected.resize(damaged.frameCount);
    EXPECT_EQ(expected.size(), parsed.packets.size());
    EXPECT_TRUE(expected == parsed.packets);
    EXPECT_EQ(expected.empty() ? 0u : 1u, parsed.formats.size());
  }
}

}  // namespace
}  // namespace stream_parser_test
