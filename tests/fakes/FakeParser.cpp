#include "fakes/FakeParser.h"

namespace fake {

AudioStreamBasicDescription defaultMp3Format() {
  AudioStreamBasicDescription format{};
  format.mSampleRate = 16000.0;
  format.mFormatID = kAudioFormatMPEGLayer3;
  format.mFramesPerPacket = 576;
  format.mChannelsPerFrame = 1;
  return format;
}

FakeParser::FakeParser(int id, AudioFileStreamID handle, void* clientData,
                       AudioFileStream_PropertyListenerProc listener, AudioFileStream_PacketsProc packets)
    : id(id), handle(handle), clientData_(clientData), listener_(listener), packets_(packets) {}

OSStatus FakeParser::parse(std::span<const uint8_t> bytes, const ParserBehaviour& behaviour, uint32_t packetSize) {
  ParseContext context(*this, bytes, ++parseCalls_, packetSize);
  return behaviour ? behaviour(context) : context.parseByDefault();
}

ParseContext::ParseContext(FakeParser& parser, std::span<const uint8_t> bytes, int call, uint32_t packetSize)
    : parser_(parser), bytes_(bytes), call_(call), packetSize_(packetSize) {}

int ParseContext::parser() const { return parser_.id; }
AudioFileStreamID ParseContext::handle() const { return parser_.handle; }
int ParseContext::call() const { return call_; }
std::span<const uint8_t> ParseContext::bytes() const { return bytes_; }

void ParseContext::reportProperty(AudioFileStreamPropertyID property) {
  uint32_t flags = 0;
  parser_.listener_(parser_.clientData_, parser_.handle, property, &flags);
}

void ParseContext::deliverPackets(std::span<const uint8_t> data,
                                  std::span<const AudioStreamPacketDescription> descriptions) {
  // The callback takes a mutable table; the caller's stays untouched.
  std::vector<AudioStreamPacketDescription> table(descriptions.begin(), descriptions.end());
  parser_.packets_(parser_.clientData_, uint32_t(data.size()), uint32_t(table.size()), data.data(), table.data());
}

void ParseContext::deliverPackets(std::span<const uint8_t> data, uint32_t packetCount) {
  parser_.packets_(parser_.clientData_, uint32_t(data.size()), packetCount, data.data(), nullptr);
}

OSStatus ParseContext::parseByDefault() {
  if (!parser_.formatReported_) {
    parser_.formatReported_ = true;
    reportProperty(kAudioFileStreamProperty_DataFormat);
    reportProperty(kAudioFileStreamProperty_ReadyToProducePackets);
  }
  std::vector<uint8_t> pending = std::move(parser_.remainder_);
  pending.insert(pending.end(), bytes_.begin(), bytes_.end());
  const size_t packets = pending.size() / packetSize_;
  const size_t complete = packets * packetSize_;
  // The remainder is kept before the player is called, so that a callback that raises leaves the
  // parser as it would be after the call.
  parser_.remainder_.assign(pending.begin() + std::ptrdiff_t(complete), pending.end());
  if (packets == 0) return noErr;
  std::vector<AudioStreamPacketDescription> descriptions(packets);
  for (size_t i = 0; i < packets; ++i) descriptions[i] = {int64_t(i * packetSize_), 0, packetSize_};
  deliverPackets(std::span(pending.data(), complete), descriptions);
  return noErr;
}

}  // namespace fake
