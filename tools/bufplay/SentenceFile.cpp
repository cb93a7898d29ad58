#include "SentenceFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <numeric>

#include "BadInput.h"
#include "Mp3ChunkSeconds.h"
#include "WavFile.h"

using QEN_TTS::Audio::AudioPlayerAudioFormats;
using QEN_TTS::Audio::EAudioPlayerAudioFormat_MP3;
using QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K;
using QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM8K;

namespace {

std::vector<uint8_t> ReadWholeFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw BadInput("cannot read " + path + ": " + std::strerror(errno));
  std::vector<uint8_t> bytes;
  uint8_t block[65536];
  ssize_t got = 0;
  while ((got = read(fd, block, sizeof block)) > 0 || (got < 0 && errno == EINTR)) {
    if (got > 0) bytes.insert(bytes.end(), block, block + got);
  }
  const int readError = errno;
  close(fd);
  // A directory opens like a file and fails only here.
  if (got < 0) throw BadInput("cannot read " + path + ": " + std::strerror(readError));
  return bytes;
}

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

}  // namespace

SentenceFile SentenceFile::Load(const std::string& path, std::optional<AudioPlayerAudioFormats> format,
                                size_t chunkBytes) {
  SentenceFile file;
  file.name_ = path;
  file.bytes_ = ReadWholeFile(path);
  file.audioBytes_ = file.bytes_.size();
  file.chunkBytes_ = chunkBytes;

  const std::string extension = LowerCaseExtension(path);
  const bool wav = LooksLikeWav(file.bytes_) && (!format || IsPcm(*format));
  if (extension == ".wav" && !wav && !format) throw BadInput(path + ": not a RIFF WAVE file");
  if (wav) {
    const WavAudio audio = ReadWavAudio(file.bytes_, path);
    const auto wavFormat = audio.sampleRate == 8000 ? EAudioPlayerAudioFormat_PCM8K : EAudioPlayerAudioFormat_PCM16K;
    if (format && *format != wavFormat) {
      throw BadInput(path + ": the WAV header says " + std::to_string(audio.sampleRate) + " Hz, --format says otherwise");
    }
    file.format_ = wavFormat;
    file.audioOffset_ = audio.dataOffset;
    file.audioBytes_ = audio.dataBytes;
  } else if (format) {
    file.format_ = *format;
  } else if (extension == ".mp3") {
    file.format_ = EAudioPlayerAudioFormat_MP3;
  } else if (extension == ".pcm" || extension == ".raw") {
    throw BadInput(path + ": raw PCM needs --format pcm8k or pcm16k");
  } else {
    throw BadInput(path + ": cannot tell the audio format from the file name; use --format pcm8k|pcm16k|mp3");
  }

  if (file.format_ == EAudioPlayerAudioFormat_MP3) {
    file.chunkSeconds_ = Mp3ChunkSeconds(file.audio(), chunkBytes);
  } else {
    const double bytesPerSecond = 2.0 * (file.format_ == EAudioPlayerAudioFormat_PCM8K ? 8000 : 16000);
    for (size_t start = 0; start < file.audioBytes_; start += chunkBytes) {
      file.chunkSeconds_.push_back(double(std::min(chunkBytes, file.audioBytes_ - start)) / bytesPerSecond);
    }
  }
  return file;
}

std::span<const uint8_t> SentenceFile::chunk(size_t index) const {
  const size_t start = index * chunkBytes_;
  return audio().subspan(start, std::min(chunkBytes_, audioBytes_ - start));
}

double SentenceFile::secondsFrom(size_t index) const {
  return std::accumulate(chunkSeconds_.begin() + std::ptrdiff_t(std::min(index, chunkSeconds_.size())),
                         chunkSeconds_.end(), 0.0);
}

double SentenceFile::longestBufferSeconds(size_t bufferBytes) const {
  double longest = 0;
  for (size_t index = 0; index < chunkCount(); ++index) {
    const double share = std::min(1.0, double(bufferBytes) / double(chunk(index).size()));
    longest = std::max(longest, chunkSeconds_[index] * share);
  }
  return longest;
}
