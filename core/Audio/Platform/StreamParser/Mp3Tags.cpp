#include "Audio/Platform/StreamParser/Mp3Tags.h"

#include <algorithm>
#include <cstring>

namespace {

uint32_t ReadLittleEndian32(const uint8_t* bytes) {
  return uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
}

// ID3v2: "ID3", major version, revision, flags, then the tag size without this 10-byte header as a
// 28-bit syncsafe number (7 bits per byte, high bit clear). Version 2.4 may append a 10-byte footer.
Mp3TagProbe MeasureId3v2(const uint8_t* bytes) {
  const uint8_t major = bytes[3];
  const uint8_t revision = bytes[4];
  const uint8_t flags = bytes[5];
  if (major < 2 || major > 4 || revision == 0xFF || ((bytes[6] | bytes[7] | bytes[8] | bytes[9]) & 0x80) != 0) {
    return {Mp3TagProbe::NotATag, 0};
  }
  const uint64_t size = uint64_t(bytes[6]) << 21 | uint64_t(bytes[7]) << 14 | uint64_t(bytes[8]) << 7 | bytes[9];
  const uint64_t footer = (major == 4 && (flags & 0x10) != 0) ? 10 : 0;
  return {Mp3TagProbe::Tag, 10 + size + footer};
}

Mp3TagProbe MeasureId3v1(const uint8_t*) { return {Mp3TagProbe::Tag, 128}; }

// APE: "APETAGEX", version (1000 or 2000), the size of items and footer, item count, flags, 8
// reserved bytes; all numbers little-endian. A header (flag bit 29) is followed by the items and the
// footer; a footer met on its own (APEv1 has no header) ends a tag whose items already went by as junk.
Mp3TagProbe MeasureApe(const uint8_t* bytes) {
  constexpr uint32_t kIsHeader = 1u << 29;
  constexpr uint32_t kHeaderBytes = 32;
  const uint32_t version = ReadLittleEndian32(bytes + 8);
  const uint32_t size = ReadLittleEndian32(bytes + 12);
  const uint32_t flags = ReadLittleEndian32(bytes + 20);
  if ((version != 1000 && version != 2000) || size < kHeaderBytes) {
    return {Mp3TagProbe::NotATag, 0};
  }
  return {Mp3TagProbe::Tag, (flags & kIsHeader) != 0 ? uint64_t(kHeaderBytes) + size : kHeaderBytes};
}

struct TagForm {
  const char* prefix;
  size_t prefixBytes;
  size_t headerBytes;  // what Measure reads
  Mp3TagProbe (*measure)(const uint8_t* bytes);
};

// The prefixes start with different letters, so at most one form can match.
constexpr TagForm kTagForms[] = {
    {"ID3", 3, 10, MeasureId3v2},
    {"TAG", 3, 3, MeasureId3v1},
    {"APETAGEX", 8, 32, MeasureApe},
};

}  // namespace

Mp3TagProbe ProbeMp3Tag(const uint8_t* bytes, size_t available) {
  for (const TagForm& form : kTagForms) {
    if (std::memcmp(bytes, form.prefix, std::min(available, form.prefixBytes)) != 0) {
      continue;
    }
    if (available < form.headerBytes) {
      return {Mp3TagProbe::NeedMore, 0};
    }
    return form.measure(bytes);
  }
  return {Mp3TagProbe::NotATag, 0};
}

bool IsMp3InfoFrame(const uint8_t* frame, const Mp3FrameHeader& header) {
  const bool mono = header.channels == 1;
  const uint32_t sideInfoBytes = header.version == Mp3Version::Mpeg1 ? (mono ? 17 : 32) : (mono ? 9 : 17);
  const auto tagAt = [&](uint32_t offset, const char* tag) {
    return offset + 4 <= header.frameBytes && std::memcmp(frame + offset, tag, 4) == 0;
  };
  const auto xingAt = [&](uint32_t offset) { return tagAt(offset, "Xing") || tagAt(offset, "Info"); };
  // LAME writes the tag where it would be without a CRC even when the frame has one.
  const uint32_t afterSideInfo = 4 + sideInfoBytes;
  return xingAt(afterSideInfo) || (header.hasCrc && xingAt(afterSideInfo + 2)) || tagAt(4 + 32, "VBRI");
}
