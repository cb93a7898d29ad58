// One sentence as bufplay feeds it: a file, or standard input while a synthesizer still writes it,
// read piece by piece as the producer hands it over, never to its end first. Opening reads only
// as far as the format is known, so that what cannot be played is named before any sound.
//
// Threads: construction on the main thread; read() on the producer's thread; the rest on any.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <optional>
#include <string>

#include "InputDecoder.h"

// A signal arrived while opening waited for the first bytes of standard input.
struct OpeningInterrupted {};

class SentenceSource {
 public:
  // Opens `hints.name` ("-": standard input, named so in messages) and reads until the format is
  // known. Throws BadInput naming what cannot be read or played, and OpeningInterrupted when
  // `wakeFd` becomes readable first.
  SentenceSource(InputHints hints, size_t chunkBytes, int wakeFd);
  ~SentenceSource();
  SentenceSource(const SentenceSource&) = delete;
  SentenceSource& operator=(const SentenceSource&) = delete;

  const std::string& name() const { return name_; }
  QEN_TTS::Audio::AudioPlayerAudioFormats format() const { return format_; }
  // How the audio is converted for the player; empty when it is not.
  const std::string& conversion() const { return conversion_; }

  // Producer's thread. The next chunk of at most chunkBytes: waits until bytes arrive, and takes
  // whatever more has already arrived. Nothing at the end of the input, or once `wakeFd` is
  // readable.
  std::optional<DecodedAudio> read(int wakeFd);

  // Seconds of audio in the whole input: a file's are known from the start; standard input's are
  // those read so far.
  double seconds() const { return std::max(fileSeconds_, secondsRead_.load(std::memory_order_relaxed)); }
  // Seconds of audio in the largest buffer the player has made of a chunk so far (it packs each
  // chunk into its own buffers): the longest gap between two progress reports while it plays.
  double longestBufferSeconds() const { return longestBufferSeconds_.load(std::memory_order_relaxed); }

 private:
  enum class Fill {
    Read,        // bytes, or the end of the input (a read error mid-stream counts as the end)
    NothingYet,  // nothing there without waiting
    Woken,       // wakeFd became readable
  };
  // Reads what the input holds into the decoder, waiting for it when `wait`.
  Fill fill(int wakeFd, bool wait);

  const std::string name_;
  const size_t chunkBytes_;
  int fd_ = -1;
  InputDecoder decoder_;
  bool ended_ = false;
  QEN_TTS::Audio::AudioPlayerAudioFormats format_{};
  std::string conversion_;
  double fileSeconds_ = 0;
  std::atomic<double> secondsRead_{0};
  std::atomic<double> longestBufferSeconds_{0};
};
