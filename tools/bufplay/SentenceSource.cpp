#include "SentenceSource.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "BadInput.h"

namespace {

constexpr const char* kStandardInput = "-";

// The seconds of audio in a whole file, decoded once before it plays, so that the live line shows
// how much is still to come.
double FileSeconds(const InputHints& hints) {
  std::ifstream file(hints.name, std::ios::binary);
  InputDecoder decoder(hints);
  double seconds = 0;
  try {
    std::vector<char> block(65536);
    while (file.read(block.data(), std::streamsize(block.size())) || file.gcount() > 0) {
      decoder.take(std::span(reinterpret_cast<const uint8_t*>(block.data()), size_t(file.gcount())));
      seconds += decoder.takeAudio(SIZE_MAX).seconds;
    }
    decoder.finish();
  } catch (const BadInput&) {
    return 0;  // the file changed since it was opened; playing it will tell
  }
  return seconds + decoder.takeAudio(SIZE_MAX).seconds;
}

InputHints NamedForMessages(InputHints hints) {
  hints.formatFromName = hints.name != kStandardInput;
  if (!hints.formatFromName) hints.name = "standard input";
  return hints;
}

}  // namespace

SentenceSource::SentenceSource(InputHints hints, size_t chunkBytes, int wakeFd)
    : name_(NamedForMessages(hints).name), chunkBytes_(chunkBytes), decoder_(NamedForMessages(hints)) {
  const bool standardInput = hints.name == kStandardInput;
  fd_ = standardInput ? STDIN_FILENO : open(hints.name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) throw BadInput("cannot read " + hints.name + ": " + std::strerror(errno));
  // The keys read a terminal; audio comes through a pipe.
  if (standardInput && isatty(fd_)) {
    throw BadInput("standard input is a terminal; pipe audio in, as in: espeak-ng --stdout \"Hello\" | bufplay -");
  }
  try {
    while (!decoder_.formatKnown()) {
      if (fill(wakeFd, true) == Fill::Woken) throw OpeningInterrupted();
    }
  } catch (...) {
    if (!standardInput) close(fd_);
    throw;
  }
  format_ = decoder_.format();
  conversion_ = decoder_.conversion();
  if (!standardInput) fileSeconds_ = FileSeconds(NamedForMessages(hints));
}

SentenceSource::~SentenceSource() {
  if (fd_ != STDIN_FILENO) close(fd_);
}

std::optional<DecodedAudio> SentenceSource::read(int wakeFd) {
  // Bytes that are already there join the chunk; waiting is only for the first.
  while (!ended_ && decoder_.pending() < chunkBytes_) {
    const Fill filled = fill(wakeFd, decoder_.pending() == 0);
    if (filled == Fill::Woken) return std::nullopt;
    if (filled == Fill::NothingYet && decoder_.pending() > 0) break;
  }
  if (decoder_.pending() == 0) return std::nullopt;
  DecodedAudio chunk = decoder_.takeAudio(chunkBytes_);
  secondsRead_.store(secondsRead_.load(std::memory_order_relaxed) + chunk.seconds, std::memory_order_relaxed);
  const double share = std::min(1.0, double(AudioBufPlayer::kBufferByteSize) / double(chunk.bytes.size()));
  longestBufferSeconds_.store(std::max(longestBufferSeconds(), chunk.seconds * share), std::memory_order_relaxed);
  return chunk;
}

SentenceSource::Fill SentenceSource::fill(int wakeFd, bool wait) {
  pollfd watched[2] = {{fd_, POLLIN, 0}, {wakeFd, POLLIN, 0}};
  if (poll(watched, wakeFd < 0 ? 1 : 2, wait ? -1 : 0) < 0) return Fill::NothingYet;
  if (watched[1].revents != 0) return Fill::Woken;
  if (watched[0].revents == 0) return Fill::NothingYet;
  uint8_t block[65536];
  const ssize_t got = ::read(fd_, block, std::min(sizeof block, chunkBytes_));
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return Fill::NothingYet;
  // A directory opens like a file and fails only here.
  if (got < 0 && !decoder_.formatKnown()) throw BadInput("cannot read " + name_ + ": " + std::strerror(errno));
  if (got <= 0) {
    ended_ = true;
    decoder_.finish();
  } else {
    decoder_.take(std::span(block, size_t(got)));
  }
  return Fill::Read;
}
