// Plan: MP3 through the queue, decoded on the queue's thread, against the corpus.
// - Every clean MP3 of the corpus, fed as its frames (from <name>.frames.tsv, so that the parser's
//   correctness does not matter here) in buffers of at most 5120 bytes, is heard as the reference
//   decode: the no-gapless decode, i.e. the ref with lead_trim samples in front and tail_trim
//   behind, within 1 LSB.
// - Packets of another format, or that are no MP3 at all, insert nothing and are counted.
// Not here: the concatenated file (a new format needs a new queue: the player's business).
#include <cstdlib>

#include "platform/OutputQueueTestSupport.h"
#include "platform/StreamParserTestSupport.h"

namespace output_queue_test {
namespace {

using stream_parser_test::AudioFrameBytes;
using stream_parser_test::Bytes;
using stream_parser_test::ReadCorpusSamples;

struct CleanMp3 {
  std::string file;
  uint32_t rate;
  uint32_t channels;
  size_t refSamples;
  size_t leadTrim;
  size_t rawSamples;
};
void PrintTo(const CleanMp3& mp3, std::ostream* out) { *out << mp3.file; }

std::vector<CleanMp3> CleanMp3s() {
  std::vector<CleanMp3> files;
  for (const auto& row : stream_parser_test::ReadTsv("MANIFEST.tsv")) {
    const std::string& file = row.at("file");
    if (file.ends_with(".mp3") && row.at("expected") == "plays") {
      files.push_back({file, uint32_t(std::stoul(row.at("rate"))), uint32_t(std::stoul(row.at("channels"))),
                       std::stoul(row.at("ref_samples")), std::stoul(row.at("lead_trim")),
                       std::stoul(row.at("raw_samples"))});
    }
  }
  return files;
}

// Packs packets into buffers of at most 5120 bytes, as the player does, and enqueues them.
void EnqueuePackets(TestQueue& queue, const std::vector<Bytes>& packets) {
  constexpr size_t kBufferBytes = 5120;
  Bytes buffer;
  std::vector<AudioStreamPacketDescription> descriptions;
  const auto flush = [&] {
    queue.enqueue(buffer.data(), buffer.size(), descriptions);
    buffer.clear();
    descriptions.clear();
  };
  for (const Bytes& packet : packets) {
    if (buffer.size() + packet.size() > kBufferBytes) flush();
    descriptions.push_back({int64_t(buffer.size()), 0, uint32_t(packet.size())});
    buffer.insert(buffer.end(), packet.begin(), packet.end());
  }
  flush();
}

std::vector<int16_t> Play(TestQueue& queue, const std::vector<Bytes>& packets) {
  EnqueuePackets(queue, packets);
  EXPECT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
  EXPECT_EQ(AudioQueueStop(queue.handle(), false), noErr);
  return queue.advanceUntilStopped();
}

class OutputQueueMp3Corpus : public ::testing::TestWithParam<CleanMp3> {};

TEST_P(OutputQueueMp3Corpus, IsHeardAsTheReferenceDecodeWithoutGaplessTrimming) {
  const CleanMp3& mp3 = GetParam();
  TestQueue queue(Mp3Format(mp3.rate, mp3.channels));
  const std::vector<int16_t> heard = Play(queue, AudioFrameBytes(mp3.file));
  const std::vector<int16_t> ref = ReadCorpusSamples(mp3.file.substr(0, mp3.file.size() - 4) + ".ref.pcm");
  ASSERT_EQ(ref.size(), mp3.refSamples * mp3.channels);

  ASSERT_EQ(heard.size(), mp3.rawSamples * mp3.channels);
  const size_t lead = mp3.leadTrim * mp3.channels;
  int worst = 0;
  for (size_t i = 0; i < ref.size(); ++i) {
    worst = std::max(worst, std::abs(heard[lead + i] - ref[i]));
  }
  EXPECT_LE(worst, 1);
  const AudioQueueCounters counters = queue.counters();
  EXPECT_EQ(counters.undecodablePackets, 0u);
  EXPECT_EQ(counters.framesPlayed, mp3.rawSamples);
  EXPECT_EQ(queue.sampleTime(), double(mp3.rawSamples));
}

INSTANTIATE_TEST_SUITE_P(CleanFiles, OutputQueueMp3Corpus, ::testing::ValuesIn(CleanMp3s()),
                         [](const auto& info) { return stream_parser_test::CorpusTestName(info.param.file); });

TEST(OutputQueueMp3, PacketsThatAreNotAudioOfTheStreamInsertNothingAndAreCounted) {
  const std::vector<Bytes> clean = AudioFrameBytes("fox_m2_16k_cbr32_lame.mp3");
  const std::vector<Bytes> otherRate = AudioFrameBytes("turn_m2_24k_vbr_lame_xing.mp3");
  const std::vector<Bytes> stereo = AudioFrameBytes("hold_m1_44k_stereo_cbr128_lame_id3v23_id3v1.mp3");
  const Bytes junk(200, 0x55);
  std::vector<Bytes> mixed(clean.begin(), clean.end());
  mixed.insert(mixed.begin() + 60, junk);
  mixed.insert(mixed.begin() + 40, stereo[10]);
  mixed.insert(mixed.begin() + 20, otherRate[10]);

  TestQueue reference(Mp3Format(16000, 1));
  const std::vector<int16_t> expected = Play(reference, clean);
  TestQueue queue(Mp3Format(16000, 1));
  const std::vector<int16_t> heard = Play(queue, mixed);

  EXPECT_EQ(queue.counters().undecodablePackets, 3u);
  ASSERT_EQ(heard.size(), expected.size()) << "each bad packet must insert nothing";
  // Where the decoder had to start afresh the bit reservoir is gone, so a frame or two after a bad
  // packet may differ; everything well away from them is the clean decode.
  for (const size_t badPacket : {20, 40, 60}) {
    const size_t from = (badPacket + 3) * 576;
    const size_t to = (badPacket + 17) * 576;
    EXPECT_TRUE(std::equal(heard.begin() + long(from), heard.begin() + long(to), expected.begin() + long(from)))
        << "frames after packet " << badPacket;
  }
}

}  // namespace
}  // namespace output_queue_test
