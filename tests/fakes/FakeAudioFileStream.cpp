// The stream parser functions of the fake, and the parser behind them.
#include <string>

#include "Audio/Platform/AudioFileStream.h"
#include "fakes/FakeParser.h"
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

FakeParser::FakeParser(int id, AudioFileStreamID handle, void* clientData,
                       AudioFileStream_PropertyListenerProc listener, AudioFileStream_PacketsProc packets)
    : id(id), handle(handle), clientData_(clientData), listener_(listener), packets_(packets) {}

OSStatus FakeParser::parse(std::span<const uint8_t> bytes, const ParserBehaviour& behaviour) {
  ParseContext context(*this, bytes, ++parseCalls_);
  return behaviour ? behaviour(context) : context.parseByDefault();
}

ParseContext::ParseContext(FakeParser& parser, std::span<const uint8_t> bytes, int call)
    : parser_(parser), bytes_(bytes), call_(call) {}

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

OSStatus ParseContext::parseByDefault() {
  if (!parser_.formatReported_) {
    parser_.formatReported_ = true;
    reportProperty(kAudioFileStreamProperty_DataFormat);
    reportProperty(kAudioFileStreamProperty_ReadyToProducePackets);
  }
  std::vector<uint8_t> pending = std::move(parser_.remainder_);
  pending.insert(pending.end(), bytes_.begin(), bytes_.end());
  const size_t packets = pending.size() / kDefaultMp3PacketSize;
  const size_t complete = packets * kDefaultMp3PacketSize;
  // The remainder is kept before the player is called, so that a callback that raises leaves the
  // parser as it would be after the call.
  parser_.remainder_.assign(pending.begin() + std::ptrdiff_t(complete), pending.end());
  if (packets == 0) return noErr;
  std::vector<AudioStreamPacketDescription> descriptions(packets);
  for (size_t i = 0; i < packets; ++i) descriptions[i] = {int64_t(i * kDefaultMp3PacketSize), 0, kDefaultMp3PacketSize};
  deliverPackets(std::span(pending.data(), complete), descriptions);
  return noErr;
}

}  // namespace fake

namespace {

using fake::FakeParser;
using fake::Outcome;

struct ParserCall {
  explicit ParserCall(AudioFileStreamID handle)
      : world(fake::world()), parser(world->findParser(handle)), ofPreviousTest(world->isOfPreviousTest(handle)) {}

  OSStatus refusal() const { return parser && !parser->closed.load() ? noErr : kAudioFileStreamError_InvalidStream; }
  std::string label() const { return parser ? " s=" + std::to_string(parser->id) : std::string(" s=?"); }

  std::shared_ptr<fake::World> world;
  std::shared_ptr<FakeParser> parser;  // null when the handle is unknown
  bool ofPreviousTest;                 // refused without a log line
};

}  // namespace

OSStatus AudioFileStreamOpen(void* inClientData, AudioFileStream_PropertyListenerProc inPropertyListenerProc,
                             AudioFileStream_PacketsProc inPacketsProc, AudioFileTypeID inFileTypeHint,
                             AudioFileStreamID* outAudioFileStream) {
  const auto world = fake::world();
  std::string line = "AudioFileStreamOpen";
  if (inFileTypeHint != 0) line += " hint=" + fake::fourCharacters(inFileTypeHint);
  std::shared_ptr<FakeParser> opened;
  const Outcome outcome = world->record("AudioFileStreamOpen", line, noErr, [&] {
    opened = world->addParserLocked(inClientData, inPropertyListenerProc, inPacketsProc);
    return " s=" + std::to_string(opened->id);
  });
  if (!outcome.proceeds()) return outcome.status;
  *outAudioFileStream = opened->handle;
  return noErr;
}

OSStatus AudioFileStreamParseBytes(AudioFileStreamID inAudioFileStream, uint32_t inDataByteSize, const void* inData,
                                   uint32_t) {
  ParserCall call(inAudioFileStream);
  if (call.ofPreviousTest) return kAudioFileStreamError_InvalidStream;
  const Outcome outcome = call.world->record(
      "AudioFileStreamParseBytes",
      "AudioFileStreamParseBytes" + call.label() + " bytes=" + std::to_string(inDataByteSize), call.refusal());
  if (!outcome.proceeds()) return outcome.status;
  const fake::ParserSettings settings = call.world->parserSettings();
  return call.parser->parse(std::span(static_cast<const uint8_t*>(inData), inDataByteSize), settings.behaviour);
}

OSStatus AudioFileStreamGetProperty(AudioFileStreamID inAudioFileStream, AudioFileStreamPropertyID inPropertyID,
                                    uint32_t* ioPropertyDataSize, void* outPropertyData) {
  ParserCall call(inAudioFileStream);
  if (call.ofPreviousTest) return kAudioFileStreamError_InvalidStream;
  OSStatus refusal = call.refusal();
  if (!refusal && inPropertyID != kAudioFileStreamProperty_DataFormat) {
    refusal = kAudioFileStreamError_UnsupportedProperty;
  }
  if (!refusal &&
      (!ioPropertyDataSize || *ioPropertyDataSize != sizeof(AudioStreamBasicDescription) || !outPropertyData)) {
    refusal = kAudioFileStreamError_BadPropertySize;
  }
  const Outcome outcome = call.world->record(
      "AudioFileStreamGetProperty",
      "AudioFileStreamGetProperty" + call.label() + " prop=" + fake::fourCharacters(inPropertyID), refusal);
  if (!outcome.proceeds()) return outcome.status;
  *static_cast<AudioStreamBasicDescription*>(outPropertyData) = call.world->parserSettings().dataFormat;
  return noErr;
}

OSStatus AudioFileStreamClose(AudioFileStreamID inAudioFileStream) {
  ParserCall call(inAudioFileStream);
  if (call.ofPreviousTest) return kAudioFileStreamError_InvalidStream;
  const Outcome outcome =
      call.world->record("AudioFileStreamClose", "AudioFileStreamClose" + call.label(), call.refusal());
  if (!outcome.proceeds()) return outcome.status;
  call.parser->closed.store(true);
  return noErr;
}
