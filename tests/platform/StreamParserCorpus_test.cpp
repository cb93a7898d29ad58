// The real parser over every MP3 of the corpus, read through MANIFEST.tsv at run time.
#include <random>

#include "platform/StreamParserTestSupport.h"

namespace stream_parser_test {
namespace {

// Before the first packet, and before every packet whose rate or channel count changes.
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

// Good files give exactly the audio frames of <name>.frames.tsv; every file, damaged ones
// included, gives the same whatever the chunking.
TEST(StreamParserCorpus, EveryFileGivesItsListedFramesWhateverTheChunking) {
  size_t files = 0;
  for (const auto& row : ReadTsv("MANIFEST.tsv")) {
    const std::string& name = row.at("file");
    if (!name.ends_with(".mp3")) continue;
    SCOPED_TRACE(name);
    ++files;
    const Bytes file = ReadCorpusFile(name);
    const ParsedStream whole = ParseInChunks(file);
    if (!name.starts_with("bad_")) {
      EXPECT_FALSE(whole.Failed());
      EXPECT_EQ(row.at("frames"), std::to_string(whole.packets.size()));
      EXPECT_TRUE(AudioFrameBytes(name) == whole.packets);
      EXPECT_EQ(ExpectedFormats(CorpusFrames(name)), whole.formats);
    }
    for (const size_t largest : {size_t(1), size_t(7), size_t(3000)}) {
      SCOPED_TRACE("chunks of 1.." + std::to_string(largest));
      std::mt19937 random{unsigned(largest)};
      std::uniform_int_distribution<size_t> sizes(1, largest);
      const ParsedStream chunked = ParseInChunks(file, [&] { return sizes(random); });
      EXPECT_TRUE(whole.packets == chunked.packets);
      EXPECT_EQ(whole.formats, chunked.formats);
      EXPECT_EQ(whole.Failed(), chunked.Failed());
    }
  }
  EXPECT_GE(files, 17u) << "an empty or misread manifest";
}

TEST(StreamParserCorpus, DamagedFilesEndAsExpected) {
  const struct {
    const char* file;
    bool fails;
    const char* framesOf;  // the good file whose audio frames come out; nullptr: none, nor a format
    size_t frameCount;     // of framesOf's audio frames; 0 for all
  } cases[] = {
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
  for (const auto& damaged : cases) {
    SCOPED_TRACE(damaged.file);
    const ParsedStream parsed = ParseInChunks(ReadCorpusFile(damaged.file));

    EXPECT_EQ(damaged.fails, parsed.Failed());
    if (damaged.fails) {
      EXPECT_EQ(kAudioFileStreamError_InvalidFile, parsed.statuses.back()) << "the empty call after a failure";
    }
    std::vector<Bytes> expected;
    if (damaged.framesOf != nullptr) expected = AudioFrameBytes(damaged.framesOf);
    if (damaged.frameCount != 0) expected.resize(damaged.frameCount);
    EXPECT_TRUE(expected == parsed.packets) << parsed.packets.size() << " packets";
    EXPECT_EQ(expected.empty() ? 0u : 1u, parsed.formats.size());
  }
}

}  // namespace
}  // namespace stream_parser_test
