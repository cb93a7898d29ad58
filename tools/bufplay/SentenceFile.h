// One sentence as bufplay feeds it: the audio bytes of a file, their format, and the seconds of
// audio in each chunk, read whole before playback so that disk reads never pace the producer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Audio/Players/qen_AudioPlayer.h"

class SentenceFile {
 public:
  // Reads the file and decides its format: the given one, else from its name (.mp3, .wav with a
  // 16-bit mono 8 or 16 kHz header; .pcm and .raw need a format). Throws BadInput naming the
  // problem when the file cannot be read or its format cannot be played.
  static SentenceFile Load(const std::string& path, std::optional<QEN_TTS::Audio::AudioPlayerAudioFormats> format,
                           size_t chunkBytes);

  const std::string& name() const { return name_; }
  QEN_TTS::Audio::AudioPlayerAudioFormats format() const { return format_; }
  size_t chunkCount() const { return chunkSeconds_.size(); }
  // Empty for index 0 of an empty file.
  std::span<const uint8_t> chunk(size_t index) const;
  double chunkSeconds(size_t index) const { return chunkSeconds_[index]; }
  // Seconds of audio in the chunks from index on.
  double secondsFrom(size_t index) const;
  double seconds() const { return secondsFrom(0); }
  // Seconds of audio in the largest buffer the player makes of one chunk (it packs each chunk into
  // buffers of bufferBytes at most): the longest gap between two progress reports while it plays.
  double longestBufferSeconds(size_t bufferBytes) const;

 private:
  std::span<const uint8_t> audio() const { return std::span(bytes_).subspan(audioOffset_, audioBytes_); }

  std::string name_;
  QEN_TTS::Audio::AudioPlayerAudioFormats format_ = QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K;
  std::vector<uint8_t> bytes_;
  size_t audioOffset_ = 0;  // the part of bytes_ handed to the player
  size_t audioBytes_ = 0;
  size_t chunkBytes_ = 1;
  std::vector<double> chunkSeconds_;
};
