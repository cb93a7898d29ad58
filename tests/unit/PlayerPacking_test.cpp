// How delivered audio becomes queue buffers: which packets travel together (offsets rewritten into
// the buffer, the 5120-byte and 512-description limits, the packets refused). That the end of a
// request wakes a producer waiting for a buffer is the stress and fault tests' (no hang).
#include <algorithm>
#include <numeric>

#include "unit/PlayerTestFixture.h"

namespace {

using PlayerPacking = PlayerTest;

struct Packet {
  int64_t offset;
  uint32_t size;
};

std::vector<Packet> contiguous(const std::vector<uint32_t>& sizes) {
  std::vector<Packet> packets;
  int64_t offset = 0;
  for (uint32_t size : sizes) {
    packets.push_back({offset, size});
    offset += size;
  }
  return packets;
}

std::vector<int> indices(int from, int to) {
  std::vector<int> result(size_t(to - from));
  std::iota(result.begin(), result.end(), from);
  return result;
}

struct DescribedCase {
  const char* name;
  std::vector<Packet> packets;
  std::vector<std::vector<int>> buffers;  // the packets each handed-over buffer holds, in order
  size_t errorLines = 0;
  uint32_t deliveredBytes = 0;  // 0: up to the end of the packet that ends last
};

TEST_F(PlayerPacking, PacketsWithDescriptionsTravelInBuffersOfAtMost5120BytesAnd512Packets) {
  const DescribedCase cases[] = {
      {"418-byte packets, twelve to a buffer", contiguous(std::vector<uint32_t>(13, 418)), {indices(0, 12), {12}}},
      {"sizes adding up to 5120 share a buffer", contiguous({1000, 1000, 1000, 1000, 1120, 1}), {indices(0, 5), {5}}},
      {"a short delivery is handed over at its end", contiguous({418, 418, 418}), {{0, 1, 2}}},
      {"513 one-byte packets", contiguous(std::vector<uint32_t>(513, 1)), {indices(0, 512), {512}}},
      {"packets spread over the delivery", {{10, 100}, {300, 50}, {120, 30}}, {{0, 1, 2}}},
      {"an oversized packet is dropped", contiguous({100, 5121, 100}), {{0, 2}}, 1},
      {"an empty packet is skipped", contiguous({100, 0, 100}), {{0, 2}}},
      {"packets outside the delivery are dropped", {{0, 100}, {-1, 10}, {150, 100}}, {{0}}, 2, 200},
  };
  for (const DescribedCase& c : cases) {
    SCOPED_TRACE(c.name);
    startOver();
    size_t end = 0;
    for (const Packet& packet : c.packets) end = std::max(end, size_t(packet.offset + packet.size));
    const std::vector<uint8_t> data = testBytes(c.deliveredBytes ? c.deliveredBytes : end);
    std::vector<AudioStreamPacketDescription> descriptions;
    for (const Packet& packet : c.packets) descriptions.push_back({packet.offset, 7, packet.size});
    fake::setParserBehaviour([&](fake::ParseContext& parse) {
      parse.reportProperty(kAudioFileStreamProperty_ReadyToProducePackets);
      parse.deliverPackets(data, descriptions);
      return noErr;
    });
    CapturedLog log;
    ASSERT_EQ(play(testBytes(1), kMP3), AudioBufPlayerError_OK);

    const std::vector<fake::EnqueuedBuffer> enqueued = fake::lastQueue().state().enqueued;
    ASSERT_EQ(enqueued.size(), c.buffers.size());
    for (size_t b = 0; b < enqueued.size(); ++b) {
      std::vector<uint8_t> expectedBytes;
      ASSERT_EQ(enqueued[b].descriptions.size(), c.buffers[b].size()) << "buffer " << b;
      for (size_t k = 0; k < c.buffers[b].size(); ++k) {
        const Packet& packet = c.packets[size_t(c.buffers[b][k])];
        const AudioStreamPacketDescription& staged = enqueued[b].descriptions[k];
        EXPECT_EQ(staged.mStartOffset, int64_t(expectedBytes.size())) << "buffer " << b << " packet " << k;
        EXPECT_EQ(staged.mDataByteSize, packet.size);
        EXPECT_EQ(staged.mVariableFramesInPacket, 7u);
        expectedBytes.insert(expectedBytes.end(), data.begin() + packet.offset,
                             data.begin() + packet.offset + packet.size);
      }
      EXPECT_EQ(enqueued[b].packets, c.buffers[b].size());
      EXPECT_EQ(enqueued[b].bytes, expectedBytes) << "buffer " << b;
    }
    EXPECT_EQ(log.count("[ERROR]"), c.errorLines) << log.text();
    // Counting comes before packing: refused packets are counted too.
    EXPECT_EQ(peer().receivedSamples(), c.packets.size() * 576);
  }
}

}  // namespace
