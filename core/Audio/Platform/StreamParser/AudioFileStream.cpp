// Parser handles are numbers from a process-wide counter, never pointers and never reused: a call
// with a closed or made-up handle finds nothing in the registry and fails without touching memory.
// The registry's mutex guards only the lookup; a call holds its parser through a shared_ptr, so
// closing a handle while a call on it is still running frees the parser only when that call ends.
#include "Audio/Platform/AudioFileStream.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "Audio/Platform/StreamParser/Mp3StreamParser.h"

namespace {

class ParserRegistry {
 public:
  // Never destroyed, so that a handle closed during the process's exit still finds a registry.
  static ParserRegistry& instance() {
    static ParserRegistry* const registry = new ParserRegistry;
    return *registry;
  }

  // Callable from any thread.
  AudioFileStreamID Open(void* clientData, AudioFileStream_PropertyListenerProc listener,
                         AudioFileStream_PacketsProc packets) {
    std::lock_guard lock(mutex_);
    const uint64_t number = ++lastNumber_;
    const auto id = reinterpret_cast<AudioFileStreamID>(static_cast<uintptr_t>(number));
    parsers_.emplace(number, std::make_shared<Mp3StreamParser>(id, clientData, listener, packets));
    return id;
  }

  // Callable from any thread; null for an unknown or closed handle.
  std::shared_ptr<Mp3StreamParser> Find(AudioFileStreamID id) {
    std::lock_guard lock(mutex_);
    const auto found = parsers_.find(reinterpret_cast<uintptr_t>(id));
    return found == parsers_.end() ? nullptr : found->second;
  }

  // Callable from any thread; false for an unknown or closed handle.
  bool Close(AudioFileStreamID id) {
    std::shared_ptr<Mp3StreamParser> closed;  // released after the lock
    std::lock_guard lock(mutex_);
    const auto found = parsers_.find(reinterpret_cast<uintptr_t>(id));
    if (found == parsers_.end()) {
      return false;
    }
    closed = std::move(found->second);
    parsers_.erase(found);
    return true;
  }

 private:
  ParserRegistry() = default;

  // Everything below is guarded by mutex_.
  std::mutex mutex_;
  uint64_t lastNumber_ = 0;
  std::unordered_map<uint64_t, std::shared_ptr<Mp3StreamParser>> parsers_;
};

}  // namespace

OSStatus AudioFileStreamOpen(void* inClientData, AudioFileStream_PropertyListenerProc inPropertyListenerProc,
                             AudioFileStream_PacketsProc inPacketsProc, AudioFileTypeID inFileTypeHint,
                             AudioFileStreamID* outAudioFileStream) {
  if (inPropertyListenerProc == nullptr || inPacketsProc == nullptr || outAudioFileStream == nullptr) {
    return kAudioFileStreamError_IllegalOperation;
  }
  if (inFileTypeHint != 0 && inFileTypeHint != kAudioFileMP3Type) {
    return kAudioFileStreamError_UnsupportedFileType;
  }
  *outAudioFileStream = ParserRegistry::instance().Open(inClientData, inPropertyListenerProc, inPacketsProc);
  return noErr;
}

OSStatus AudioFileStreamParseBytes(AudioFileStreamID inAudioFileStream, uint32_t inDataByteSize, const void* inData,
                                   uint32_t /*inFlags*/) {
  const std::shared_ptr<Mp3StreamParser> parser = ParserRegistry::instance().Find(inAudioFileStream);
  if (!parser) {
    return kAudioFileStreamError_InvalidStream;
  }
  if (inData == nullptr && inDataByteSize > 0) {
    return kAudioFileStreamError_IllegalOperation;
  }
  return parser->Parse(static_cast<const uint8_t*>(inData), inDataByteSize);
}

OSStatus AudioFileStreamGetProperty(AudioFileStreamID inAudioFileStream, AudioFileStreamPropertyID inPropertyID,
                                    uint32_t* ioPropertyDataSize, void* outPropertyData) {
  const std::shared_ptr<Mp3StreamParser> parser = ParserRegistry::instance().Find(inAudioFileStream);
  if (!parser) {
    return kAudioFileStreamError_InvalidStream;
  }
  if (ioPropertyDataSize == nullptr || outPropertyData == nullptr) {
    return kAudioFileStreamError_IllegalOperation;
  }
  const std::optional<AudioStreamBasicDescription>& format = parser->format();
  switch (inPropertyID) {
    case kAudioFileStreamProperty_DataFormat:
      if (*ioPropertyDataSize < sizeof(AudioStreamBasicDescription)) {
        return kAudioFileStreamError_BadPropertySize;
      }
      if (!format) {
        return kAudioFileStreamError_DataUnavailable;
      }
      std::memcpy(outPropertyData, &*format, sizeof(AudioStreamBasicDescription));
      *ioPropertyDataSize = sizeof(AudioStreamBasicDescription);
      return noErr;
    case kAudioFileStreamProperty_ReadyToProducePackets: {
      if (*ioPropertyDataSize < sizeof(uint32_t)) {
        return kAudioFileStreamError_BadPropertySize;
      }
      const uint32_t ready = format ? 1 : 0;
      std::memcpy(outPropertyData, &ready, sizeof ready);
      *ioPropertyDataSize = sizeof ready;
      return noErr;
    }
    default:
      return kAudioFileStreamError_UnsupportedProperty;
  }
}

OSStatus AudioFileStreamClose(AudioFileStreamID inAudioFileStream) {
  return ParserRegistry::instance().Close(inAudioFileStream) ? noErr : kAudioFileStreamError_InvalidStream;
}
