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
      EXPECT_FALSE(whole.failed);
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
      EXPECT_EQ(whole.failed, chunked.failed);
    }
  }
  EXPECT_GE(files, 17u) << "an empty or misread manifest";
}

}  // namespace
}  // namespace stream_parser_test
