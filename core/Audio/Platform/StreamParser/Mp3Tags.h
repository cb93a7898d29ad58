// Metadata blocks that may sit before, between or after the frames of an MP3 stream, and the
// Xing/Info/VBRI frame that encoders put first. All pure functions over bytes in memory.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Audio/Platform/StreamParser/Mp3FrameHeader.h"

// What the bytes at a position are, as far as tags go.
struct Mp3TagProbe {
  enum Kind : uint8_t {
    NotATag,   // no tag starts here
    NeedMore,  // the bytes given so far begin like a tag; more are needed to tell
    Tag,       // a tag of tagBytes bytes starts here (the size it claims; it may exceed the stream)
  };
  Kind kind;
  uint64_t tagBytes;
};

// The most bytes ProbeMp3Tag ever needs to decide.
constexpr size_t kMp3TagProbeBytes = 32;

// Looks for an ID3v2 tag (header with a valid syncsafe size, footer included when flagged),
// an ID3v1 tag ("TAG", 128 bytes) or an APE tag header or footer ("APETAGEX") at bytes[0].
// `available` bytes may be read (any number; only the first kMp3TagProbeBytes are ever read).
// NeedMore only while every available byte agrees with a tag's fixed prefix, so a truncated
// stream never waits on bytes that already rule a tag out.
Mp3TagProbe ProbeMp3Tag(const uint8_t* bytes, size_t available);

// Whether a complete frame is the Xing, Info or VBRI frame that encoders write first: it carries
// the stream's frame count and gapless information, and its audio is silence that players skip.
// frame holds header.frameBytes bytes.
bool IsMp3InfoFrame(const uint8_t* frame, const Mp3FrameHeader& header);
