#include "InputDecoder.h"

#include <algorithm>
#include <cctype>

#include "BadInput.h"
#include "WavHeader.h"

using QEN_TTS::Audio::AudioPlayerAudioFormats;
using QEN_TTS::Audio::EAudioPlayerAudioFormat_MP3;
using QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K;
using QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM8K;

namespace {

// Enough of the first bytes to tell a WAV header from an MP3 stream.
constexpr size_t kSniffBytes = 12;
// A WAV header whose data chunk has not begun by then is broken, not long.
constexpr size_t kMaxWavHeaderBytes = 1 << 20;

std::string LowerCaseExtension(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string extension = path.substr(dot);
  std::transform(extension.begin(), extension.end(), extension.begin(), [](unsigned char c) { return std::tolower(c); });
  return extension;
}

bool IsPcm(AudioPlayerAudioFormats format) {
  return format == EAudioPlayerAudioFormat_PCM8K || format == EAudioPlayerAudioFormat_PCM16K;
}

// An ID3v2 tag, or an MPEG audio frame sync.
bool LooksLikeMp3(std::span<const uint8_t> bytes) {
  if (bytes.size() >= 3 && bytes[0] == 'I' && bytes[1] == 'D' && bytes[2] == '3') return true;
  return bytes.size() >= 2 && bytes[0] == 0xFF && (bytes[1] & 0xE0) == 0xE0;
}

}  // namespace

InputDecoder::InputDecoder(InputHints hints) : hints_(std::move(hints)) {}

void InputDecoder::take(std::span<const uint8_t> bytes) {
  if (formatKnown()) {
    passAudio(bytes);
    return;
  }
  head_.insert(head_.end(), bytes.begin(), bytes.end());
  decide(false);
}

void InputDecoder::finish() {
  if (!formatKnown()) decide(true);
  if (converter_) converter_->finish(audio_);
}

std::string InputDecoder::conversion() const { return converter_ ? converter_->describe() : ""; }

DecodedAudio InputDecoder::takeAudio(size_t maxBytes) {
  DecodedAudio decoded;
  const auto end = audio_.begin() + std::ptrdiff_t(std::min(maxBytes, audio_.size()));
  decoded.bytes.assign(audio_.begin(), end);
  audio_.erase(audio_.begin(), end);
  if (mp3Seconds_) {
    decoded.seconds = mp3Seconds_->measure(decoded.bytes);
  } else if (formatKnown()) {
    decoded.seconds = double(decoded.bytes.size()) / (*format_ == EAudioPlayerAudioFormat_PCM8K ? 16000.0 : 32000.0);
  }
  return decoded;
}

void InputDecoder::decide(bool ended) {
  if (ended && head_.empty() && !hints_.formatFromName) throw BadInput(hints_.name + ": no audio came in");
  size_t audioStart = 0;
  if (wav_) {
    const std::optional<WavHeader> header = ParseWavHeader(head_, ended, hints_.name);
    if (!header) {
      if (head_.size() > kMaxWavHeaderBytes) throw BadInput(hints_.name + ": no WAV data chunk in the first MiB");
      return;
    }
    if (header->dataBytes) audioLeft_ = header->dataBytes;
    audioStart = std::min(head_.size(), header->dataOffset);
    startPcm(header->sampleRate, header->channels);
  } else {
    if (head_.size() < kSniffBytes && !ended) return;
    const std::optional<AudioPlayerAudioFormats>& format = hints_.format;
    if (LooksLikeWav(head_) && (!format || IsPcm(*format))) {
      wav_ = true;
      decide(ended);
      return;
    }
    const std::string extension = hints_.formatFromName ? LowerCaseExtension(hints_.name) : "";
    const bool unsaid = !format && !hints_.rawRate;  // the name, or else the first bytes, tell
    if (format == EAudioPlayerAudioFormat_MP3 ||
        (unsaid && (hints_.formatFromName ? extension == ".mp3" : LooksLikeMp3(head_)))) {
      format_ = EAudioPlayerAudioFormat_MP3;
      mp3Seconds_ = std::make_unique<Mp3Seconds>();
    } else if (hints_.rawRate) {
      startPcm(*hints_.rawRate, 1);
    } else if (format) {
      format_ = format;
    } else if (extension == ".wav") {
      throw BadInput(hints_.name + ": not a RIFF WAVE file");
    } else if (extension == ".pcm" || extension == ".raw") {
      throw BadInput(hints_.name + ": raw PCM needs --format pcm8k or pcm16k, or --rate HZ");
    } else if (hints_.formatFromName) {
      throw BadInput(hints_.name + ": cannot tell the audio format from the file name; use --format pcm8k|pcm16k|mp3");
    } else {
      throw BadInput(hints_.name + ": cannot tell the audio format from the first bytes; use --format pcm8k|pcm16k|mp3");
    }
  }
  std::vector<uint8_t> head;
  head.swap(head_);
  passAudio(std::span(head).subspan(audioStart));
}

void InputDecoder::startPcm(uint32_t rate, uint16_t channels) {
  auto converter = std::make_unique<PcmConverter>(rate, channels, hints_.name);
  format_ = converter->outputRate() == 8000 ? EAudioPlayerAudioFormat_PCM8K : EAudioPlayerAudioFormat_PCM16K;
  if (converter->converts()) converter_ = std::move(converter);
}

void InputDecoder::passAudio(std::span<const uint8_t> bytes) {
  if (audioLeft_) {
    bytes = bytes.first(std::min(bytes.size(), *audioLeft_));
    *audioLeft_ -= bytes.size();
  }
  if (converter_) {
    converter_->convert(bytes, audio_);
  } else {
    audio_.insert(audio_.end(), bytes.begin(), bytes.end());
  }
}
