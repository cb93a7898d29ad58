// The bytes one parse call can see: those kept from earlier calls, then the caller's new bytes,
// addressed as one run. Nothing is copied unless a read straddles the two parts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

class SplitBytes {
 public:
  SplitBytes(const uint8_t* kept, size_t keptSize, const uint8_t* fresh, size_t freshSize)
      : kept_(kept), keptSize_(keptSize), fresh_(fresh), freshSize_(freshSize) {}

  size_t size() const { return keptSize_ + freshSize_; }
  size_t keptSize() const { return keptSize_; }
  const uint8_t* fresh() const { return fresh_; }
  size_t freshSize() const { return freshSize_; }

  uint8_t operator[](size_t position) const {
    return position < keptSize_ ? kept_[position] : fresh_[position - keptSize_];
  }

  // bytes [position, position + length), which must lie within size(): a pointer into one of the
  // parts, or into scratch (at least length bytes) when the range straddles them.
  const uint8_t* Contiguous(size_t position, size_t length, uint8_t* scratch) const {
    if (position >= keptSize_) {
      return fresh_ + (position - keptSize_);
    }
    if (position + length <= keptSize_) {
      return kept_ + position;
    }
    const size_t fromKept = keptSize_ - position;
    std::memcpy(scratch, kept_ + position, fromKept);
    std::memcpy(scratch + fromKept, fresh_, length - fromKept);
    return scratch;
  }

 private:
  const uint8_t* kept_;
  size_t keptSize_;
  const uint8_t* fresh_;
  size_t freshSize_;
};
