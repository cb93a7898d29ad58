#include "Audio/Platform/StreamParser/Mp3StreamParser.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "Audio/Platform/StreamParser/Mp3Tags.h"
#include "Audio/Platform/StreamParser/SplitBytes.h"

namespace {

// The first bytes of a frame (0xFF) or of a tag ("ID3", "TAG", "APETAGEX"); every other byte is
// junk on sight, which keeps resyncing through garbage fast.
constexpr std::array<bool, 256> kMayStartUnit = [] {
  std::array<bool, 256> table{};
  table[0xFF] = table['I'] = table['T'] = table['A'] = true;
  return table;
}();

// Clears a flag when leaving its scope, however that happens.
class ScopedFlag {
 public:
  explicit ScopedFlag(bool& flag) : flag_(flag) { flag_ = true; }
  ~ScopedFlag() { flag_ = false; }
  ScopedFlag(const ScopedFlag&) = delete;
  ScopedFlag& operator=(const ScopedFlag&) = delete;

 private:
  bool& flag_;
};

}  // namespace

// What starts at a position of the stream.
struct Mp3StreamParser::Unit {
  enum Kind : uint8_t { NeedMore, Junk, Tag, Frame };
  Kind kind;
  uint64_t tagBytes = 0;    // Tag
  Mp3FrameHeader header{};  // Frame
  bool newSync = false;     // Frame: confirmed by the next header rather than by the lock
};

Mp3StreamParser::Mp3StreamParser(AudioFileStreamID id, void* clientData, AudioFileStream_PropertyListenerProc listener,
                                 AudioFileStream_PacketsProc packets)
    : id_(id), clientData_(clientData), listener_(listener), packets_(packets) {}

OSStatus Mp3StreamParser::Parse(const uint8_t* data, size_t size) {
  if (parsing_) {
    return kAudioFileStreamError_IllegalOperation;
  }
  if (failed_) {
    return kAudioFileStreamError_InvalidFile;
  }
  const ScopedFlag parsing(parsing_);
  const SplitBytes bytes(kept_.data() + keptBegin_, keptEnd_ - keptBegin_, data, size);
  const size_t stop = Scan(bytes);
  FlushPackets();
  if (failed_) {
    keptBegin_ = keptEnd_ = 0;
    return kAudioFileStreamError_InvalidFile;
  }
  Keep(bytes, stop);
  return noErr;
}

size_t Mp3StreamParser::Scan(const SplitBytes& bytes) {
  size_t position = 0;
  for (;;) {
    if (tagBytesLeft_ > 0) {
      const size_t skipped = size_t(std::min<uint64_t>(tagBytesLeft_, bytes.size() - position));
      position += skipped;
      tagBytesLeft_ -= skipped;
    }
    if (tagBytesLeft_ > 0 || position == bytes.size()) {
      return position;
    }
    const Unit unit = Classify(bytes, position);
    switch (unit.kind) {
      case Unit::NeedMore:
        return position;
      case Unit::Tag:
        tagBytesLeft_ = unit.tagBytes;
        break;
      case Unit::Junk: {
        locked_.reset();
        const size_t next = SkipJunk(bytes, position + 1);
        if (!frameFound_) {
          junkBeforeFirstFrame_ += next - position;
          if (junkBeforeFirstFrame_ > kMaxJunkBeforeFirstFrame) {
            failed_ = true;
            return position;
          }
        }
        position = next;
        break;
      }
      case Unit::Frame:
        if (unit.newSync) {
          Lock(unit.header);
        }
        TakeFrame(bytes, position, unit.header);
        position += unit.header.frameBytes;
        break;
    }
  }
}

Mp3StreamParser::Unit Mp3StreamParser::Classify(const SplitBytes& bytes, size_t position) const {
  const size_t available = bytes.size() - position;
  if (bytes[position] != 0xFF) {
    uint8_t scratch[kMp3TagProbeBytes];
    const size_t probed = std::min(available, kMp3TagProbeBytes);
    const Mp3TagProbe tag = ProbeMp3Tag(bytes.Contiguous(position, probed, scratch), probed);
    switch (tag.kind) {
      case Mp3TagProbe::NeedMore:
        return {Unit::NeedMore};
      case Mp3TagProbe::Tag:
        return {Unit::Tag, tag.tagBytes};
      case Mp3TagProbe::NotATag:
        return {Unit::Junk};
    }
  }
  if (available < 4) {
    return {Unit::NeedMore};
  }
  uint8_t scratch[4];
  const std::optional<Mp3FrameHeader> header = ParseMp3FrameHeader(bytes.Contiguous(position, 4, scratch));
  if (!header) {
    return {Unit::Junk};
  }
  const bool newSync = !locked_ || !SameMp3Stream(*header, *locked_);
  if (newSync) {
    // A lone sync pattern in junk must not decide the stream's format.
    if (available < header->frameBytes + 4) {
      return {Unit::NeedMore};
    }
    const std::optional<Mp3FrameHeader> next =
        ParseMp3FrameHeader(bytes.Contiguous(position + header->frameBytes, 4, scratch));
    if (!next || !SameMp3Stream(*next, *header)) {
      return {Unit::Junk};
    }
  }
  if (available < header->frameBytes) {
    return {Unit::NeedMore};
  }
  return {Unit::Frame, 0, *header, newSync};
}

size_t Mp3StreamParser::SkipJunk(const SplitBytes& bytes, size_t from) {
  size_t position = from;
  for (; position < bytes.keptSize(); ++position) {
    if (kMayStartUnit[bytes[position]]) {
      return position;
    }
  }
  const uint8_t* const fresh = bytes.fresh();
  size_t index = position - bytes.keptSize();
  while (index < bytes.freshSize() && !kMayStartUnit[fresh[index]]) {
    ++index;
  }
  return bytes.keptSize() + index;
}

void Mp3StreamParser::Lock(const Mp3FrameHeader& header) {
  locked_ = header;
  if (format_ && format_->mSampleRate == header.sampleRate && format_->mChannelsPerFrame == header.channels) {
    return;
  }
  FlushPackets();  // the frames of the old format go first
  AudioStreamBasicDescription format{};
  format.mSampleRate = header.sampleRate;
  format.mFormatID = kAudioFormatMPEGLayer3;
  format.mFramesPerPacket = header.samplesPerFrame;
  format.mChannelsPerFrame = header.channels;
  format_ = format;
  for (const AudioFileStreamPropertyID property :
       {kAudioFileStreamProperty_DataFormat, kAudioFileStreamProperty_ReadyToProducePackets}) {
    uint32_t flags = 0;
    listener_(clientData_, id_, property, &flags);
  }
}

void Mp3StreamParser::TakeFrame(const SplitBytes& bytes, size_t position, const Mp3FrameHeader& header) {
  const uint32_t size = header.frameBytes;
  if (!frameFound_) {
    frameFound_ = true;
    if (IsMp3InfoFrame(bytes.Contiguous(position, size, straddling_.data()), header)) {
      return;
    }
  }
  if (position < bytes.keptSize()) {
    Gather(bytes.Contiguous(position, size, straddling_.data()), size);
    return;
  }
  const uint8_t* frame = bytes.fresh() + (position - bytes.keptSize());
  // The frames after a split one join it in the parser's copy while it has room, so that a caller
  // feeding small chunks gets each chunk's frames in one callback rather than two.
  if (gathering_ && GatheredFits(size)) {
    Gather(frame, size);
    return;
  }
  if (gathering_ || pendingCount_ == pending_.size() || (pendingCount_ > 0 && frame != pendingEnd_)) {
    FlushPackets();
  }
  if (pendingCount_ == 0) {
    pendingBegin_ = frame;
  }
  pending_[pendingCount_++] = {frame - pendingBegin_, 0, size};
  pendingEnd_ = frame + size;
}

bool Mp3StreamParser::GatheredFits(uint32_t size) const {
  return pendingCount_ < pending_.size() && gathered_.size() - size_t(pendingEnd_ - pendingBegin_) >= size;
}

void Mp3StreamParser::Gather(const uint8_t* frame, uint32_t size) {
  if (!gathering_ || !GatheredFits(size)) {
    FlushPackets();
  }
  if (pendingCount_ == 0) {
    gathering_ = true;
    pendingBegin_ = pendingEnd_ = gathered_.data();
  }
  std::memcpy(gathered_.data() + (pendingEnd_ - pendingBegin_), frame, size);
  pending_[pendingCount_++] = {pendingEnd_ - pendingBegin_, 0, size};
  pendingEnd_ += size;
}

void Mp3StreamParser::FlushPackets() {
  if (pendingCount_ == 0) {
    return;
  }
  const auto count = uint32_t(pendingCount_);
  pendingCount_ = 0;
  gathering_ = false;
  packets_(clientData_, uint32_t(pendingEnd_ - pendingBegin_), count, pendingBegin_, pending_.data());
}

void Mp3StreamParser::Keep(const SplitBytes& bytes, size_t from) {
  const size_t keep = bytes.size() - from;
  assert(keep < kMaxKeptBytes);
  if (from >= bytes.keptSize()) {
    if (keep > 0) {
      std::memcpy(kept_.data(), bytes.fresh() + (from - bytes.keptSize()), keep);
    }
    keptBegin_ = 0;
    keptEnd_ = keep;
    return;
  }
  keptBegin_ += from;
  if (keptEnd_ + bytes.freshSize() > kept_.size()) {
    std::memmove(kept_.data(), kept_.data() + keptBegin_, keptEnd_ - keptBegin_);
    keptEnd_ -= keptBegin_;
    keptBegin_ = 0;
  }
  if (bytes.freshSize() > 0) {
    std::memcpy(kept_.data() + keptEnd_, bytes.fresh(), bytes.freshSize());
    keptEnd_ += bytes.freshSize();
  }
}
