#include "Audio/Platform/OutputQueue/Playout.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace {
// One sample at `level` (0 to 1), rounded half away from zero. A sample faded but not silenced
// keeps its sign, one step at the least: an inaudible difference that keeps every fed sample apart
// from the silence of a gap in a recording. Branch-free, so that loops over it vectorise.
inline int16_t scaledSample(int16_t fed, float level) {
  const float scaled = float(fed) * level;
  const int32_t rounded = int32_t(scaled + (scaled < 0.0f ? -0.5f : 0.5f));
  const int32_t sign = fed > 0 ? 1 : (fed < 0 ? -1 : 0);
  return int16_t(std::clamp(rounded == 0 && level > 0.0f ? sign : rounded, -32768, 32767));
}

// `count` samples at a level that does not change.
void scaleSteadily(int16_t* samples, size_t count, float level) {
  for (size_t i = 0; i < count; ++i) {
    samples[i] = scaledSample(samples[i], level);
  }
}
}  // namespace

Playout::Playout(PcmRing& ring, uint32_t fadeFrames, RenderJob& job)
    : ring_(ring),
      job_(job),
      fadeFrames_(std::max<uint32_t>(fadeFrames, 1)),
      step_(1.0f / float(fadeFrames_)),
      envelope_(fadeFrames_) {}

void Playout::publishControl(uint32_t run, bool playing) {
  control_.store(run << 1 | uint32_t(playing), std::memory_order_release);
}

void Playout::discardBefore(uint64_t position) {
  discardBefore_.store(position, std::memory_order_release);
  discards_.fetch_add(1, std::memory_order_release);
}

void Playout::endAt(uint64_t position) { endAt_.store(position, std::memory_order_release); }

bool Playout::takeBackEnd(uint64_t position) {
  return endAt_.compare_exchange_strong(position, kNoEnd, std::memory_order_acq_rel);
}

size_t Playout::render(int16_t* out, size_t frames, uint64_t latencyFrames) noexcept {
  // A consistent view of the control side. It stores a discard before it lets a run play, bumps
  // discards_ after storing the position, stores an end before it writes the frames after it, and
  // writes a new run's frames only after all that; hence this load order. The control word is read
  // again at the end: a stop or a new run in between changes it (a run that stops never plays
  // again), and then the view is taken anew, or the period stays silent if it keeps changing.
  uint32_t control = 0;
  uint64_t written = 0;
  uint32_t discards = 0;
  uint64_t discardBefore = 0;
  uint64_t end = 0;
  for (int attempt = 0;; ++attempt) {
    control = control_.load(std::memory_order_acquire);
    written = ring_.writePosition();
    discards = discards_.load(std::memory_order_acquire);
    discardBefore = discardBefore_.load(std::memory_order_acquire);
    end = endAt_.load(std::memory_order_acquire);
    if (end != kNoEnd) {
      end &= ~kEndReached;
    }
    if (control_.load(std::memory_order_acquire) == control) {
      break;
    }
    if (attempt == 2) {
      control &= ~1u;
      break;
    }
  }
  const float volume = volume_.load(std::memory_order_relaxed);
  const uint64_t readBefore = ring_.readPosition();

  if (control >> 1 != run_) {
    run_ = control >> 1;
    flowing_ = dry_ = ended_ = gainSet_ = false;
    envelope_ = fadeFrames_;
  }
  const bool playing = (control & 1) != 0 && !ended_;
  const bool newDiscard = discards != discardsSeen_;
  size_t done = 0;
  size_t heard = 0;

  // Fade out what was heard when the run stopped playing, on the frames that were to come next;
  // after a new discard only on the stale ones, which were what was playing.
  if (!playing && flowing_ && envelope_ > 0) {
    uint64_t limit = std::min(written, end);
    if (newDiscard) {
      limit = std::min(limit, std::max(discardBefore, readBefore));
    }
    done = std::min({frames, size_t(envelope_), size_t(limit - readBefore)});
    play(out, done, false, volume);
    if (ring_.readPosition() == limit) {
      envelope_ = 0;  // nothing left to fade on
    }
    heard = done;
  }
  const bool fading = !playing && flowing_ && envelope_ > 0;

  if (!fading) {
    const uint64_t read = ring_.readPosition();
    if (read < discardBefore) {
      ring_.skip(size_t(std::min(discardBefore, written) - read));
    }
    discardsSeen_ = discards;
  }

  while (playing && done < frames) {
    const uint64_t read = ring_.readPosition();
    if (read == end) {
      uint64_t expected = end;
      if (endAt_.compare_exchange_strong(expected, end | kEndReached, std::memory_order_acq_rel) ||
          expected == (end | kEndReached)) {
        ended_ = true;
        break;
      }
      end = kNoEnd;  // withdrawn: what was enqueued late plays on
      continue;
    }
    const uint64_t available = std::min(written, end) - read;
    if (available > 0) {
      const size_t count = size_t(std::min<uint64_t>(available, frames - done));
      // Short of this call's frames and not at the drain's end: the ring runs dry right after them.
      const bool gapFollows = count < frames - done && written < end;
      const size_t fading = gapFollows ? std::min<size_t>(count, fadeFrames_) : 0;
      play(out + done * ring_.channels(), count - fading, true, volume);
      fadeBeforeGap(out + (done + count - fading) * ring_.channels(), fading, volume);
      done += count;
      heard = done;
      dry_ = false;
      continue;
    }
    if (flowing_) {
      if (!dry_) {
        dry_ = true;
        underruns_.fetch_add(1, std::memory_order_relaxed);
      }
      silent_.fetch_add(frames - done, std::memory_order_relaxed);
      heard = frames;  // the gap is heard as silence
    }
    break;
  }

  std::memset(out + done * ring_.channels(), 0, (frames - done) * ring_.channels() * sizeof(int16_t));
  const uint64_t heardBefore = heardRead_.load(std::memory_order_relaxed);
  publishHeard(frames, latencyFrames);
  const uint64_t readAfter = ring_.readPosition();
  const uint64_t heardAfter = heardRead_.load(std::memory_order_relaxed);
  if ((readAfter != readBefore && readAfter >= wakeAtRead_.load(std::memory_order_seq_cst)) ||
      (heardAfter != heardBefore && heardAfter >= wakeAtHeard_.load(std::memory_order_seq_cst))) {
    job_.wantRender();
  }
  return heard;
}

void Playout::publishHeard(size_t frames, uint64_t latencyFrames) {
  outputFrames_ += frames;
  newestMark_ = (newestMark_ + 1) % marks_.size();
  marks_[newestMark_] = Mark{outputFrames_, ring_.readPosition(), played_};
  marksKept_ = std::min(marksKept_ + 1, marks_.size());
  const uint64_t heardUpTo = outputFrames_ - std::min(latencyFrames, outputFrames_);
  const Mark* heard = nullptr;
  for (size_t age = 0; age < marksKept_; ++age) {
    const Mark& mark = marks_[(newestMark_ + marks_.size() - age) % marks_.size()];
    if (mark.outputFrames <= heardUpTo || age + 1 == marks_.size()) {
      heard = &mark;
      break;
    }
  }
  if (heard == nullptr) {
    return;  // the first calls' frames are still on their way
  }
  if (heard->played > 0 && firstFrameNanos_.load(std::memory_order_relaxed) == 0) {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    firstFrameNanos_.store(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count(),
                           std::memory_order_relaxed);
  }
  heardPlayed_.store(heard->played, std::memory_order_relaxed);
  heardRead_.store(heard->read, std::memory_order_seq_cst);
}

void Playout::play(int16_t* out, size_t frames, bool fadeIn, float volume) {
  if (frames == 0) {
    return;
  }
  ring_.read(out, frames);
  countHeard(frames, volume);
  if (fadeIn && envelope_ == fadeFrames_ && gain_ == volume) {
    // No envelope and no gain ramp: at full volume heard exactly as enqueued.
    if (volume != 1.0f) {
      scaleSteadily(out, frames * ring_.channels(), volume);
    }
    return;
  }
  for (size_t frame = 0; frame < frames; ++frame) {
    envelope_ = fadeIn ? std::min(fadeFrames_, envelope_ + 1) : envelope_ - std::min(envelope_, 1u);
    scale(out + frame * ring_.channels(), float(envelope_) / float(fadeFrames_), volume);
  }
}

void Playout::fadeBeforeGap(int16_t* out, size_t frames, float volume) {
  if (frames == 0) {
    return;
  }
  ring_.read(out, frames);
  countHeard(frames, volume);
  // From the level reached towards silence, however few frames are left; the silence itself is
  // the gap's.
  const float from = float(envelope_) / float(fadeFrames_);
  for (size_t frame = 0; frame < frames; ++frame) {
    scale(out + frame * ring_.channels(), from * float(frames - frame) / float(frames + 1), volume);
  }
  envelope_ = 0;  // the frames after the gap fade in
}

void Playout::scale(int16_t* frame, float envelope, float volume) {
  gain_ = gain_ < volume ? std::min(volume, gain_ + step_) : std::max(volume, gain_ - step_);
  const float level = envelope * gain_;
  for (uint32_t channel = 0; channel < ring_.channels(); ++channel) {
    frame[channel] = scaledSample(frame[channel], level);
  }
}

void Playout::countHeard(size_t frames, float volume) {
  if (!gainSet_) {
    gain_ = volume;
    gainSet_ = true;
  }
  flowing_ = true;
  played_ += frames;
}
