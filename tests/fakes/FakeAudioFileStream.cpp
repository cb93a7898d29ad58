// The stream parser functions of the fake, and the default parsing behind them.
#include "Audio/Platform/AudioFileStream.h"
#include "fakes/FakeWorld.h"

namespace fake {

AudioStreamBasicDescription defaultMp3Format() {
  AudioStreamBasicDescription format{};
  format.mSampleRate = 16000.0;
  format.mFormatID = kAudioFormatMPEGLayer3;
  format.mFramesPerPacket = 576;
  format.mChannelsPerFrame = 1;
  return format;
}

void setParserDataFormat(const AudioStreamBasicDescription& format) {
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  world->dataFormat = format;
}

void setParserBehaviour(ParserBehaviour behaviour) {
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  world->behaviour = std::move(behaviour);
}

int ParseContext::parser() const { return parser_.id; }
AudioFileStreamID ParseContext::handle() const { return reinterpret_cast<AudioFileStreamID>(parser_.handle); }
int ParseContext::call() const { return parser_.parseCalls; }

void ParseContext::reportProperty(AudioFileStreamPropertyID property) {
  uint32_t flags = 0;
  parser_.listener(parser_.clientData, handle(), property, &flags);
}

void ParseContext::deliverPackets(std::span<const uint8_t> data,
                                  std::span<const AudioStreamPacketDescription> descriptions) {
  // The callback takes a mutable table; the caller's stays untouched.
  std::vector<AudioStreamPacketDescription> table(descriptions.begin(), descriptions.end());
  parser_.packets(parser_.clientData, uint32_t(data.size()), uint32_t(table.size()), data.data(), table.data());
}

OSStatus ParseContext::parseByDefault() {
  if (!parser_.formatReported) {
    parser_.formatReported = true;
    reportProperty(kAudioFileStreamProperty_DataFormat);
    reportProperty(kAudioFileStreamProperty_ReadyToProducePackets);
  }
  std::vector<uint8_t> pending = std::move(parser_.remainder);
  pending.insert(pending.end(), bytes_.begin(), bytes_.end());
  const size_t packets = pending.size() / kDefaultMp3PacketSize;
  const size_t complete = packets * kDefaultMp3PacketSize;
  // Kept before the player is called, so that a callback that raises leaves the parser as after the call.
  parser_.remainder.assign(pending.begin() + std::ptrdiff_t(complete), pending.end());
  if (packets == 0) return noErr;
  std::vector<AudioStreamPacketDescription> descriptions(packets);
  for (size_t i = 0; i < packets; ++i) descriptions[i] = {int64_t(i * kDefaultMp3PacketSize), 0, kDefaultMp3PacketSize};
  deliverPackets(std::span(pending.data(), complete), descriptions);
  return noErr;
}

}  // namespace fake

namespace {

// One call on a parser: records "function s=N" unless the handle is unknown; a closed parser refuses.
OSStatus recordParserCall(fake::World& world, const char* function, AudioFileStreamID handle,
                          std::shared_ptr<fake::FakeParser>& parser) {
  parser = fake::World::find(world.parsers, handle);
  if (!parser) return kAudioFileStreamError_InvalidStream;
  const OSStatus refusal = parser->closed ? kAudioFileStreamError_InvalidStream : noErr;
  return world.record(function, function + (" s=" + std::to_string(parser->id)), refusal);
}

}  // namespace

OSStatus AudioFileStreamOpen(void* inClientData, AudioFileStream_PropertyListenerProc inPropertyListenerProc,
                             AudioFileStream_PacketsProc inPacketsProc, AudioFileTypeID,
                             AudioFileStreamID* outAudioFileStream) {
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  if (OSStatus status = world->record("AudioFileStreamOpen", "AudioFileStreamOpen")) return status;
  auto parser = std::make_shared<fake::FakeParser>();
  parser->handle = fake::newHandle();
  parser->id = int(world->parsers.size()) + 1;
  parser->clientData = inClientData;
  parser->listener = inPropertyListenerProc;
  parser->packets = inPacketsProc;
  world->parsers.push_back(parser);
  *outAudioFileStream = reinterpret_cast<AudioFileStreamID>(parser->handle);
  return noErr;
}

OSStatus AudioFileStreamParseBytes(AudioFileStreamID inAudioFileStream, uint32_t inDataByteSize, const void* inData,
                                   uint32_t) {
  const auto world = fake::world();
  std::shared_ptr<fake::FakeParser> parser;
  fake::ParserBehaviour behaviour;
  {
    std::lock_guard lock(world->mutex);
    if (OSStatus status = recordParserCall(*world, "AudioFileStreamParseBytes", inAudioFileStream, parser)) {
      return status;
    }
    behaviour = world->behaviour;
  }
  // A parser is used by one thread at a time, as the real one: its state needs no lock.
  ++parser->parseCalls;
  fake::ParseContext context(*parser, std::span(static_cast<const uint8_t*>(inData), inDataByteSize));
  return behaviour ? behaviour(context) : context.parseByDefault();
}

OSStatus AudioFileStreamGetProperty(AudioFileStreamID inAudioFileStream, AudioFileStreamPropertyID, uint32_t*,
                                    void* outPropertyData) {
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  std::shared_ptr<fake::FakeParser> parser;
  if (OSStatus status = recordParserCall(*world, "AudioFileStreamGetProperty", inAudioFileStream, parser)) {
    return status;
  }
  *static_cast<AudioStreamBasicDescription*>(outPropertyData) = world->dataFormat;
  return noErr;
}

OSStatus AudioFileStreamClose(AudioFileStreamID inAudioFileStream) {
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  std::shared_ptr<fake::FakeParser> parser;
  if (OSStatus status = recordParserCall(*world, "AudioFileStreamClose", inAudioFileStream, parser)) return status;
  parser->closed = true;
  return noErr;
}
