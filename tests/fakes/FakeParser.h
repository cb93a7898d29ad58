// One fake stream parser. A parser is used by one thread at a time, as the real one: its parsing
// state is touched only inside AudioFileStreamParseBytes; only closed is shared.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <vector>

#include "Audio/Platform/AudioFileStream.h"
#include "fakes/FakePlatform.h"

namespace fake {

class FakeParser {
 public:
  FakeParser(int id, AudioFileStreamID handle, void* clientData, AudioFileStream_PropertyListenerProc listener,
             AudioFileStream_PacketsProc packets);

  const int id;  // s=N
  const AudioFileStreamID handle;
  std::atomic<bool> closed{false};

  // One AudioFileStreamParseBytes call: behaviour, or the default when it is empty.
  OSStatus parse(std::span<const uint8_t> bytes, const ParserBehaviour& behaviour);

 private:
  friend class ParseContext;

  void* const clientData_;
  const AudioFileStream_PropertyListenerProc listener_;
  const AudioFileStream_PacketsProc packets_;
  int parseCalls_ = 0;
  bool formatReported_ = false;
  std::vector<uint8_t> remainder_;  // bytes of an incomplete packet, waiting for the next call
};

}  // namespace fake
