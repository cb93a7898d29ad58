// Finds MP3 frames in bytes that arrive in chunks of any size and hands them, grouped, to the
// packet callback; reports the stream's format through the property listener before the frames.
//
// States, at each position of the stream:
//   searching: no stream is locked. A valid Layer III header is taken only when the header at the
//     distance of its frame size agrees (same version, rate and channel count); anything else is
//     junk and skipped byte by byte. Before the first frame at most kMaxJunkBeforeFirstFrame bytes
//     of junk are skipped; past that the parser fails.
//   locked: every header that agrees with the locked one starts a frame, delivered once complete.
//     Anything else loses the lock and the parser searches again from the same byte, so a change of
//     rate or channel count is confirmed like a first sync and reported again.
//   in a tag: ID3v2, ID3v1 and APE tags are counted down, never stored, whatever size they claim.
//   failed: final; every later call fails with kAudioFileStreamError_InvalidFile.
// The parser keeps at most one frame and the next header between calls, so its memory is fixed.
// Frames lying wholly in the caller's bytes are delivered in place, several per callback; a frame
// split across calls is delivered from the parser's own copy, together with the frames after it
// as far as that copy has room.
//
// Threads: one thread at a time, the one feeding the stream; no locks. The callbacks run on that
// thread inside Parse.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "Audio/Platform/AudioFileStream.h"
#include "Audio/Platform/StreamParser/Mp3FrameHeader.h"

class SplitBytes;

class Mp3StreamParser {
 public:
  // Junk tolerated before the first frame; tags do not count.
  static constexpr size_t kMaxJunkBeforeFirstFrame = 4096;
  // Frames handed over in one packet callback at most.
  static constexpr size_t kMaxPacketsPerCallback = 512;

  // id is what the callbacks receive as the stream.
  Mp3StreamParser(AudioFileStreamID id, void* clientData, AudioFileStream_PropertyListenerProc listener,
                  AudioFileStream_PacketsProc packets);
  Mp3StreamParser(const Mp3StreamParser&) = delete;
  Mp3StreamParser& operator=(const Mp3StreamParser&) = delete;

  // Parses the next bytes of the stream, calling back for everything they complete. Returns
  // kAudioFileStreamError_InvalidFile once the stream has failed, and
  // kAudioFileStreamError_IllegalOperation when called from inside one of its own callbacks.
  OSStatus Parse(const uint8_t* data, size_t size);

  // The format of the frames delivered last (or about to be), once a first frame was found.
  // Callable from inside the callbacks.
  const std::optional<AudioStreamBasicDescription>& format() const { return format_; }

 private:
  struct Unit;

  Unit Classify(const SplitBytes& bytes, size_t position) const;
  // Runs the state machine over bytes; returns where it stopped for want of more bytes.
  size_t Scan(const SplitBytes& bytes);
  // Returns the first position from `from` on where a frame or a tag could start.
  static size_t SkipJunk(const SplitBytes& bytes, size_t from);
  void Lock(const Mp3FrameHeader& header);
  void TakeFrame(const SplitBytes& bytes, size_t position, const Mp3FrameHeader& header);
  // While gathering: whether one more frame of `size` bytes joins the pending ones.
  bool GatheredFits(uint32_t size) const;
  // Adds a frame to the pending ones in the parser's own copy.
  void Gather(const uint8_t* frame, uint32_t size);
  void FlushPackets();
  void Keep(const SplitBytes& bytes, size_t from);

  const AudioFileStreamID id_;
  void* const clientData_;
  const AudioFileStream_PropertyListenerProc listener_;
  const AudioFileStream_PacketsProc packets_;

  bool parsing_ = false;
  bool failed_ = false;
  bool frameFound_ = false;
  size_t junkBeforeFirstFrame_ = 0;
  uint64_t tagBytesLeft_ = 0;
  std::optional<Mp3FrameHeader> locked_;
  std::optional<AudioStreamBasicDescription> format_;

  // Bytes of an unfinished frame, tag header or sync check, kept for the next call: at most a
  // frame and the header after it. Twice that, so that compacting is rare.
  static constexpr size_t kMaxKeptBytes = kMp3MaxFrameBytes + 4;
  std::array<uint8_t, 4 * 1024> kept_;
  static_assert(sizeof(kept_) >= 2 * kMaxKeptBytes);
  size_t keptBegin_ = 0;
  size_t keptEnd_ = 0;
  // A frame that straddles the kept bytes and the caller's, made whole.
  std::array<uint8_t, kMp3MaxFrameBytes> straddling_;

  // Frames not yet handed over: contiguous, from pendingBegin_ to pendingEnd_, in the caller's bytes
  // or (gathering_) in gathered_.
  std::array<AudioStreamPacketDescription, kMaxPacketsPerCallback> pending_;
  std::array<uint8_t, 4 * kMp3MaxFrameBytes> gathered_;
  bool gathering_ = false;
  size_t pendingCount_ = 0;
  const uint8_t* pendingBegin_ = nullptr;
  const uint8_t* pendingEnd_ = nullptr;
};
