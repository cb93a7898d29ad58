// The stream parser functions of the fake.
#include <string>

#include "Audio/Platform/AudioFileStream.h"
#include "fakes/FakeParser.h"
#include "fakes/FakeWorld.h"

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
  return call.parser->parse(std::span(static_cast<const uint8_t*>(inData), inDataByteSize), settings.behaviour,
                            settings.packetSize);
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
