// Turns the bytes of one input (a file, or standard input while a synthesizer still writes it), in
// whatever pieces they arrive, into audio the player takes: it finds the format (from the options,
// the file name, or the first bytes), reads a WAV header, converts WAV and raw PCM of other rates
// and channel counts, and tells how many seconds each piece of audio carries.
//
// Not thread-safe: one thread feeds it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Audio/Players/qen_AudioPlayer.h"
#include "Mp3Seconds.h"
#include "PcmConverter.h"

// What the user said about an input.
struct InputHints {
  std::string name;  // starts every message about the input
  std::optional<QEN_TTS::Audio::AudioPlayerAudioFormats> format;  // --format
  std::optional<uint32_t> rawRate;  // --rate: raw PCM of this rate
  bool formatFromName = false;  // a file: its extension names the format; otherwise the first bytes do
};

// Audio for the player, and how long it plays.
struct DecodedAudio {
  std::vector<uint8_t> bytes;
  double seconds = 0;
};

class InputDecoder {
 public:
  explicit InputDecoder(InputHints hints);

  // Takes the next bytes of the input. Throws BadInput, naming the problem, when the format cannot
  // be told or played; that happens only before formatKnown().
  void take(std::span<const uint8_t> bytes);
  // The input has ended: lets out what a converter still holds. Throws BadInput as take() does
  // when the format was still unknown (an empty input, a cut WAV header).
  void finish();

  // Whether the player's format is known: only then does audio come out.
  bool formatKnown() const { return format_.has_value(); }
  QEN_TTS::Audio::AudioPlayerAudioFormats format() const { return *format_; }
  // "22050 Hz, 1 channel to 16000 Hz mono" when the audio is converted; empty otherwise.
  std::string conversion() const;
  // Bytes of decoded audio not yet taken.
  size_t pending() const { return audio_.size(); }
  // Up to maxBytes of the decoded audio, oldest first.
  DecodedAudio takeAudio(size_t maxBytes);

 private:
  // Decides the format once enough of the first bytes are in; `ended`: no more will come.
  void decide(bool ended);
  void startPcm(uint32_t rate, uint16_t channels);
  void passAudio(std::span<const uint8_t> bytes);

  const InputHints hints_;
  std::optional<QEN_TTS::Audio::AudioPlayerAudioFormats> format_;
  bool wav_ = false;  // the first bytes are a WAV header, still being read while format_ is unset
  std::vector<uint8_t> head_;  // the first bytes, kept until the format is known
  std::optional<size_t> audioLeft_;  // what a WAV data chunk still holds, when its size is set
  std::unique_ptr<PcmConverter> converter_;
  std::unique_ptr<Mp3Seconds> mp3Seconds_;
  std::vector<uint8_t> audio_;  // decoded, not yet taken
};
