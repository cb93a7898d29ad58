// Feeds arbitrary bytes to the MP3 stream parser twice, in one piece and in chunks whose sizes come
// from the input, and aborts when what it delivers breaks the parser's promises: packets lie inside
// the delivered bytes, contiguous and each one whole frame behind a valid header, the format is
// readable before the first packet, and the packets do not depend on the chunking.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "Audio/Platform/AudioFileStream.h"
#include "Audio/Platform/StreamParser/Mp3FrameHeader.h"

namespace {

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "mp3_parser_fuzzer: %s\n", what);
    std::abort();
  }
}

struct Packet {
  std::vector<uint8_t> bytes;
  double sampleRate;
  bool operator==(const Packet&) const = default;
};

struct Delivery {
  AudioFileStreamID stream = nullptr;
  bool ready = false;
  std::vector<Packet> packets;
};

void onProperty(void* clientData, AudioFileStreamID stream, AudioFileStreamPropertyID property, uint32_t*) {
  auto& delivery = *static_cast<Delivery*>(clientData);
  check(stream == delivery.stream, "a property reported for another stream");
  if (property == kAudioFileStreamProperty_ReadyToProducePackets) delivery.ready = true;
}

void onPackets(void* clientData, uint32_t byteCount, uint32_t packetCount, const void* data,
               AudioStreamPacketDescription* descriptions) {
  auto& delivery = *static_cast<Delivery*>(clientData);
  check(delivery.ready, "packets before ReadyToProducePackets");
  check(packetCount > 0 && packetCount <= 512 && descriptions != nullptr, "packet count out of range");
  AudioStreamBasicDescription format{};
  uint32_t size = sizeof format;
  check(AudioFileStreamGetProperty(delivery.stream, kAudioFileStreamProperty_DataFormat, &size, &format) == noErr,
        "no data format while delivering packets");
  const auto* bytes = static_cast<const uint8_t*>(data);
  int64_t next = 0;
  for (uint32_t i = 0; i < packetCount; ++i) {
    const AudioStreamPacketDescription& packet = descriptions[i];
    check(packet.mStartOffset == next, "packets are not contiguous");
    check(packet.mDataByteSize >= 4 && packet.mStartOffset + packet.mDataByteSize <= byteCount,
          "a packet lies outside the delivered bytes");
    const uint8_t* frame = bytes + packet.mStartOffset;
    const auto header = ParseMp3FrameHeader(frame);
    check(header.has_value(), "a packet does not start with a valid header");
    check(header->frameBytes == packet.mDataByteSize, "a packet is not one whole frame");
    check(header->sampleRate == format.mSampleRate && header->channels == format.mChannelsPerFrame &&
              header->samplesPerFrame == format.mFramesPerPacket,
          "a packet does not match the reported format");
    delivery.packets.push_back({std::vector<uint8_t>(frame, frame + packet.mDataByteSize), format.mSampleRate});
    next += packet.mDataByteSize;
  }
  check(next == int64_t(byteCount), "packets do not fill the delivered bytes");
}

// Chunk sizes from the input's last bytes, mostly small so that frames and tags straddle chunks.
std::vector<size_t> chunkSizes(const uint8_t* data, size_t size) {
  uint32_t seed = uint32_t(size);
  for (size_t i = size >= 4 ? size - 4 : 0; i < size; ++i) seed = seed * 31 + data[i];
  std::minstd_rand random(seed);
  std::vector<size_t> sizes;
  for (size_t total = 0; total < size; total += sizes.back()) {
    sizes.push_back(random() % 4 ? 1 + random() % 64 : 1 + random() % 6000);
  }
  return sizes;
}

// Whether the parser failed for good.
bool parse(const uint8_t* data, size_t size, const std::vector<size_t>& chunks, Delivery& delivery) {
  check(AudioFileStreamOpen(&delivery, onProperty, onPackets, 0, &delivery.stream) == noErr, "open failed");
  bool failed = false;
  size_t at = 0;
  for (const size_t chunk : chunks) {
    const size_t length = std::min(chunk, size - at);
    const OSStatus status = AudioFileStreamParseBytes(delivery.stream, uint32_t(length), data + at, 0);
    check(status == noErr || status == kAudioFileStreamError_InvalidFile, "unexpected parse status");
    check(!failed || status != noErr, "a failed parser recovered");
    failed = status != noErr;
    at += length;
  }
  check(AudioFileStreamClose(delivery.stream) == noErr, "close failed");
  return failed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Delivery whole;
  Delivery chunked;
  const bool wholeFailed = parse(data, size, {size}, whole);
  const bool chunkedFailed = parse(data, size, chunkSizes(data, size), chunked);
  check(wholeFailed == chunkedFailed, "the chunking decided whether the stream failed");
  check(whole.packets == chunked.packets, "the chunking changed the packets");
  return 0;
}
