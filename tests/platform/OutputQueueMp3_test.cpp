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

TEST(OutputQueueMp3, EveryCleanFileIsHeardAsTheReferenceDecodeWithoutGaplessTrimming) {
  for (const auto& row : stream_parser_test::ReadTsv("MANIFEST.tsv")) {
    const std::string& file = row.at("file");
    if (!file.ends_with(".mp3") || row.at("expected") != "plays") continue;
    SCOPED_TRACE(file);
    const size_t channels = std::stoul(row.at("channels"));
    const size_t rawSamples = std::stoul(row.at("raw_samples"));
    TestQueue queue(Mp3Format(uint32_t(std::stoul(row.at("rate"))), uint32_t(channels)));
    const std::vector<int16_t> heard = Play(queue, AudioFrameBytes(file));
    const std::vector<int16_t> ref = ReadCorpusSamples(row.at("ref_file"));
    ASSERT_EQ(ref.size(), std::stoul(row.at("ref_samples")) * channels);

    ASSERT_EQ(heard.size(), rawSamples * channels);
    const size_t lead = std::stoul(row.at("lead_trim")) * channels;
    int worst = 0;
    for (size_t i = 0; i < ref.size(); ++i) worst = std::max(worst, std::abs(heard[lead + i] - ref[i]));
    EXPECT_LE(worst, 1);
    EXPECT_EQ(queue.counters().undecodablePackets, 0u);
    EXPECT_EQ(queue.counters().framesPlayed, rawSamples);
    EXPECT_EQ(queue.sampleTime(), double(rawSamples));
  }
}

TEST(OutputQueueMp3, PacketsThatAreNotAudioOfTheStreamInsertNothingAndAreCounted) {
  const std::vector<Bytes> clean = AudioFrameBytes("fox_m2_16k_cbr32_lame.mp3");
  const std::vector<Bytes> otherRate = AudioFrameBytes("hold_m2_24k_vbr_lame_xing.mp3");
  const std::vector<Bytes> stereo = AudioFrameBytes("hello_m1_44k_stereo_cbr128_lame_id3v23_id3v1.mp3");
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
