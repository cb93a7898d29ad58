// Plan: how delivered audio becomes queue buffers. Packets with descriptions (MP3, delivered by a
// scripted parser): which packets travel together, their offsets rewritten into the buffer, the
// bytes, the 5120-byte and 512-description limits, and the packets refused (oversized, empty,
// outside the delivery). Bytes without descriptions (PCM): buffer sizes and bytes, a one-byte
// chunk. Counting of received audio, a delivery without a queue, and two producers taking turns.
// Not here: the hand-over's own waits and failures (buffer pool tests), real MP3 framing (platform
// tests). Whether the second producer arrives while the first waits cannot be observed; the turn
// test catches shared packing state only when it does, which is the usual order.
#include <algorithm>
#include <future>
#include <numeric>
#include <tuple>

#include "unit/PlayerTestFixture.h"

namespace {

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

using PlayerPacking = PlayerTest;

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

TEST_F(PlayerPacking, BytesWithoutDescriptionsFillWholeBuffersAndTheLastTakesTheRest) {
  const struct {
    size_t chunk;
    std::vector<size_t> buffers;
  } cases[] = {{12000, {5120, 5120, 1760}}, {5121, {5120, 1}}, {1, {1}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.chunk);
    startOver();
    ASSERT_EQ(play(testBytes(c.chunk), kPCM8K), AudioBufPlayerError_OK);
    const fake::QueueState queue = fake::lastQueue().state();
    std::vector<size_t> sizes;
    for (const fake::EnqueuedBuffer& buffer : queue.enqueued) {
      sizes.push_back(buffer.bytes.size());
      EXPECT_EQ(buffer.packets, 0u);
      EXPECT_TRUE(buffer.descriptions.empty());
    }
    EXPECT_EQ(sizes, c.buffers);
    EXPECT_EQ(queue.allEnqueuedBytes(), testBytes(c.chunk));
  }
}

TEST_F(PlayerPacking, ReceivedAudioIsCountedPerChunkAndReportedWithTheOffset) {
  ASSERT_EQ(play(testBytes(16000), kPCM8K, 2.5), AudioBufPlayerError_OK);
  EXPECT_EQ(peer().receivedSamples(), 8000u);
  EXPECT_DOUBLE_EQ(peer().receivedAudioLength(), 1.0);
  ASSERT_EQ(append(testBytes(8000), kPCM8K), AudioBufPlayerError_OK);
  EXPECT_EQ(peer().receivedSamples(), 12000u);
  EXPECT_DOUBLE_EQ(peer().receivedAudioLength(), 1.5);

  const std::vector<DelegateEvent> lengths = eventsNamed(delegate->events(), "updatedTotalLength");
  ASSERT_EQ(lengths.size(), 2u);
  EXPECT_DOUBLE_EQ(lengths[0].seconds, 3.5);
  EXPECT_DOUBLE_EQ(lengths[1].seconds, 4.0);
  EXPECT_EQ(lengths[0].thread, std::this_thread::get_id());
}

// The stream's format is recorded before the queue opens, whether it opens or not.
TEST_F(PlayerPacking, DeliveryWithoutAQueueIsNeitherCountedNorSent) {
  for (const auto& [format, rate, samplesPerPacket] : {std::tuple{kPCM8K, 8000.0, 1u}, {kMP3, 16000.0, 576u}}) {
    SCOPED_TRACE(rate);
    startOver();
    fake::failCall("AudioQueueNewOutput", kAudioQueueErr_DeviceFailed);
    ASSERT_EQ(play(testBytes(16000), format), AudioBufPlayerError_OK);
    EXPECT_EQ(peer().samplesPerPacket(), samplesPerPacket);
    EXPECT_EQ(peer().sampleRate(), rate);
    EXPECT_EQ(peer().receivedSamples(), 0u);
    EXPECT_EQ(peer().receivedAudioLength(), 0.0);
    EXPECT_EQ(fake::countCalls("AudioQueueEnqueueBuffer"), 0u);
    const std::vector<DelegateEvent> events = deliveredEvents();
    EXPECT_TRUE(eventsNamed(events, "updatedTotalLength").empty());
    EXPECT_EQ(eventsNamed(events, "PlayerError").size(), 1u);  // the failed opening
  }
}

TEST_F(PlayerPacking, SecondProducerWaitsUntilTheFirstHasHandedOverItsWholeChunk) {
  const std::vector<uint8_t> first = testBytes(21 * 5120, 1);
  const std::vector<uint8_t> second = testBytes(100, 2);
  auto firstProducer = std::async(std::launch::async, [&] { return play(first, kPCM8K); });
  const StopOnExit stopFirstOnFailure(*player);
  // The twentieth buffer takes the last free one: the first producer now waits with its 21st staged.
  ASSERT_TRUE(fake::waitForCalls("AudioQueueEnqueueBuffer", 20));
  auto secondProducer = std::async(std::launch::async, [&] { return append(second, kPCM8K); });
  const StopOnExit stopOnFailure(*player);
  fake::Queue queue = fake::lastQueue();
  ASSERT_TRUE(queue.playBack());
  ASSERT_EQ(firstProducer.wait_for(fake::kWaitTimeout), std::future_status::ready);
  EXPECT_EQ(firstProducer.get(), AudioBufPlayerError_OK);
  ASSERT_TRUE(queue.playBack());
  ASSERT_EQ(secondProducer.wait_for(fake::kWaitTimeout), std::future_status::ready);
  EXPECT_EQ(secondProducer.get(), AudioBufPlayerError_OK);

  std::vector<uint8_t> expected = first;
  expected.insert(expected.end(), second.begin(), second.end());
  EXPECT_EQ(queue.state().allEnqueuedBytes(), expected);
  EXPECT_EQ(queue.state().enqueued.size(), 22u);
}

}  // namespace
