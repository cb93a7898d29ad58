// A single-producer single-consumer ring of interleaved 16-bit frames, addressed by absolute frame
// positions that only grow: a position names the same frame for the ring's whole life, so the
// queue can say "this buffer ends at frame N" and compare it with what the consumer has read.
//
// Synchronised only through the two position atomics. The producer copies in, then publishes the
// write position (release); the consumer copies out, then publishes the read position. The read
// position is stored and loaded sequentially consistent because the queue's render pass pairs it
// with a wake-up threshold of its own (Playout::render, the end of the pass): one of the two sides
// always sees the other's store.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

class PcmRing {
 public:
  // One allocation, here; nothing allocates afterwards.
  PcmRing(size_t capacityFrames, uint32_t channels);

  size_t capacity() const { return capacity_; }
  uint32_t channels() const { return channels_; }

  // Any thread; real-time safe.
  uint64_t writePosition() const { return write_.load(std::memory_order_acquire); }
  // Any thread; real-time safe.
  uint64_t readPosition() const { return read_.load(std::memory_order_seq_cst); }

  // Producer only; real-time safe. Copies as many of `frames` as fit and returns that count.
  size_t write(const int16_t* samples, size_t frames);

  // Consumer only; real-time safe. Copies `frames` frames from the read position, all of which must
  // have been written, and moves the read position past them.
  void read(int16_t* out, size_t frames);
  // Consumer only; real-time safe. Moves the read position past `frames` written frames unheard.
  void skip(size_t frames);

 private:
  const size_t capacity_;
  const uint32_t channels_;
  const std::unique_ptr<int16_t[]> samples_;
  alignas(64) std::atomic<uint64_t> write_{0};
  alignas(64) std::atomic<uint64_t> read_{0};
};
