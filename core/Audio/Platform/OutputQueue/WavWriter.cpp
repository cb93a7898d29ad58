#include "Audio/Platform/OutputQueue/WavWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstring>
#include <limits>

#include "Diagnostics/qen_log.h"

namespace {
static_assert(std::endian::native == std::endian::little, "WAV data is written as the samples lie in memory");

constexpr uint32_t kHeaderBytes = 44;
constexpr off_t kRiffSizeOffset = 4;
constexpr off_t kDataSizeOffset = 40;

void putLittleEndian(uint8_t* at, uint32_t value, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) {
    at[i] = uint8_t(value >> (8 * i));
  }
}

bool writeAll(int fd, const void* bytes, size_t count, off_t offset) {
  const auto* next = static_cast<const uint8_t*>(bytes);
  while (count > 0) {
    const ssize_t written = offset < 0 ? write(fd, next, count) : pwrite(fd, next, count, offset);
    if (written <= 0) {
      return false;
    }
    next += written;
    count -= size_t(written);
    offset = offset < 0 ? offset : offset + written;
  }
  return true;
}
}  // namespace

WavWriter::WavWriter(const std::string& path, uint32_t sampleRate, uint32_t channels, OSStatus* status)
    : path_(path), bytesPerFrame_(2 * channels) {
  fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  std::array<uint8_t, kHeaderBytes> header{};
  std::memcpy(&header[0], "RIFF", 4);
  putLittleEndian(&header[4], kHeaderBytes - 8, 4);
  std::memcpy(&header[8], "WAVEfmt ", 8);
  putLittleEndian(&header[16], 16, 4);  // fmt chunk size
  putLittleEndian(&header[20], 1, 2);   // integer PCM
  putLittleEndian(&header[22], channels, 2);
  putLittleEndian(&header[24], sampleRate, 4);
  putLittleEndian(&header[28], sampleRate * bytesPerFrame_, 4);
  putLittleEndian(&header[32], bytesPerFrame_, 2);
  putLittleEndian(&header[34], 16, 2);
  std::memcpy(&header[36], "data", 4);
  putLittleEndian(&header[40], 0, 4);
  *status = fd_ >= 0 && writeAll(fd_, header.data(), header.size(), -1) ? noErr : kAudioQueueErr_DeviceFailed;
  if (*status != noErr) {
    LOG_ERROR("cannot write the WAV file %s: %s", path.c_str(), strerror(errno));
  }
}

WavWriter::~WavWriter() {
  if (fd_ >= 0) {
    close(fd_);
  }
}

void WavWriter::append(const int16_t* samples, size_t frames) {
  const size_t room = (std::numeric_limits<uint32_t>::max() - kHeaderBytes - dataBytes_) / bytesPerFrame_;
  const size_t bytes = std::min(frames, room) * bytesPerFrame_;
  if (failed_ || bytes == 0) {
    return;
  }
  std::array<uint8_t, 4> size{};
  bool ok = writeAll(fd_, samples, bytes, -1);
  if (ok) {
    dataBytes_ += uint32_t(bytes);
    putLittleEndian(size.data(), kHeaderBytes - 8 + dataBytes_, 4);
    ok = writeAll(fd_, size.data(), 4, kRiffSizeOffset);
    putLittleEndian(size.data(), dataBytes_, 4);
    ok = ok && writeAll(fd_, size.data(), 4, kDataSizeOffset);
  }
  if (!ok) {
    failed_ = true;
    LOG_ERROR("writing the WAV file %s failed: %s; it ends here", path_.c_str(), strerror(errno));
  }
}
