// The consumer side of a queue's ring: decides, period by period, what the sound output hears.
//
// Everything accessed in render() is synchronised only through atomics. The control side (the
// queue's API calls and its render pass, serialised by the queue's mutex) publishes the control
// word, the discard and end positions and the volume; render() publishes the read position
// (through the ring) and the counters, and asks for a render pass of the queue when the read
// position reaches the threshold the queue's last pass asked for.
//
// What is heard, within one run (a run begins with each start from stopped):
//   nothing until the run's first frame is in the ring (start latency, not an underrun);
//   then the ring's frames, at the volume; a ring that runs dry while the run plays is heard as
//   silence and counted (an underrun, and its silent frames);
//   pausing or stopping fades out over the fade length, on real frames, then nothing is heard;
//   resuming within the run fades back in; a new run starts at full level, so that its first
//   frames are heard exactly as enqueued;
//   a drain ends the run at the end position, with nothing heard after it; the control side keeps
//   that end position until it starts the next run, or takes it back before it is reached.
// Frames below the discard position (what an immediate stop threw away) are skipped unheard,
// except those the stop's fade-out plays. A ring that runs dry mid-run fades out on its last frames
// and fades back in when frames come again, so that the gap is not a click.
//
// Time as heard: a sound output holds frames for a while after render() returns (its latency).
// render() keeps, for its recent calls, where the ring and the played count stood after each, and
// publishes the last of those points the listener has heard by now: the "heard" read position and
// played count lag what render() took by the output's latency, rounded down to a whole call.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <limits>

#include "Audio/Platform/OutputQueue/OutputDevice.h"
#include "Audio/Platform/OutputQueue/PcmRing.h"
#include "Audio/Platform/OutputQueue/RenderJob.h"

class Playout final : public RenderSource {
 public:
  static constexpr uint64_t kNoEnd = std::numeric_limits<uint64_t>::max();

  Playout(PcmRing& ring, uint32_t fadeFrames, RenderJob& job);

  // Control side, under the queue's mutex: the current run and whether it plays now. A run that
  // does not play (paused, stopped, or waiting for the discard of an immediate stop) is silent.
  void publishControl(uint32_t run, bool playing);
  // Control side, under the queue's mutex: every frame below `position` is stale. Each call is a
  // new discard; no frame above `position` may have been written before the call.
  void discardBefore(uint64_t position);
  // Control side, under the queue's mutex: the running drain ends at `position` (kNoEnd: none).
  void endAt(uint64_t position);
  // Control side, under the queue's mutex: withdraws the end set at `position`, unless render()
  // has already ended the run there. Returns whether it was withdrawn.
  bool takeBackEnd(uint64_t position);
  // Any thread: the linear gain, 0 to 1.
  void setVolume(float volume) { volume_.store(volume, std::memory_order_relaxed); }
  // Queue's render pass: ask for the next pass once the read position reaches `read` or the heard
  // read position reaches `heard`.
  void wakeWhenReached(uint64_t read, uint64_t heard) {
    wakeAtRead_.store(read, std::memory_order_seq_cst);
    wakeAtHeard_.store(heard, std::memory_order_seq_cst);
  }

  // Device thread; real-time safe.
  size_t render(int16_t* out, size_t frames, uint64_t latencyFrames) noexcept override;
  // Any thread; real-time safe. Asks for a render pass, which then stops the queue for good.
  void lost() noexcept override {
    lost_.store(true, std::memory_order_release);
    job_.wantRender();
  }
  bool isLost() const { return lost_.load(std::memory_order_acquire); }

  // Any thread: the ring position up to which the listener has heard.
  uint64_t heardReadPosition() const { return heardRead_.load(std::memory_order_seq_cst); }
  // Any thread: counters in frames of the ring (the sound output's rate). Played frames are those
  // heard; the others count when render() takes them.
  uint64_t playedFrames() const { return heardPlayed_.load(std::memory_order_relaxed); }
  uint64_t underruns() const { return underruns_.load(std::memory_order_relaxed); }
  uint64_t silentFrames() const { return silent_.load(std::memory_order_relaxed); }
  // Any thread: steady-clock time of the first frame ever heard (as render() learns it), 0 before it.
  int64_t firstFrameNanos() const { return firstFrameNanos_.load(std::memory_order_relaxed); }

 private:
  // Device thread: copy `frames` frames from the ring into out at the current level, stepping the
  // fade envelope one frame towards full (fadeIn) or silent, and the gain towards `volume`.
  void play(int16_t* out, size_t frames, bool fadeIn, float volume);
  // Device thread: the ring's frames between here and the first of those about to be read are
  // the last before a gap: fade them out, so that the ring running dry is not heard as a click.
  void fadeBeforeGap(int16_t* out, size_t frames, float volume);
  // Device thread: one frame at `envelope` (0 to 1) times the gain, stepping the gain to `volume`.
  void scale(int16_t* frame, float envelope, float volume);
  // Device thread: `frames` frames taken from the ring; the first of a run sets the gain.
  void countHeard(size_t frames, float volume);
  // Device thread, at the end of a call: records where this call left the ring and publishes
  // what the listener has heard, `latencyFrames` after it.
  void publishHeard(size_t frames, uint64_t latencyFrames);

  PcmRing& ring_;
  RenderJob& job_;
  const uint32_t fadeFrames_;
  const float step_;  // gain change per frame: full scale over the fade length

  // --- published by the control side ---
  std::atomic<uint32_t> control_{0};  // run << 1 | playing
  std::atomic<uint64_t> discardBefore_{0};
  std::atomic<uint32_t> discards_{0};  // bumped after each discardBefore_ store
  // The end position; render() sets kEndReached in it when it ends the run there, so that the end
  // is either withdrawn or reached, never both.
  std::atomic<uint64_t> endAt_{kNoEnd};
  static constexpr uint64_t kEndReached = uint64_t(1) << 63;
  std::atomic<float> volume_{1.0f};
  std::atomic<uint64_t> wakeAtRead_{kNoEnd};
  std::atomic<uint64_t> wakeAtHeard_{kNoEnd};
  std::atomic<bool> lost_{false};

  // --- published by render() ---
  std::atomic<uint64_t> heardRead_{0};
  std::atomic<uint64_t> heardPlayed_{0};
  std::atomic<uint64_t> underruns_{0};
  std::atomic<uint64_t> silent_{0};
  std::atomic<int64_t> firstFrameNanos_{0};

  // --- render()'s own ---
  uint32_t run_ = 0;
  uint32_t discardsSeen_ = 0;
  bool flowing_ = false;  // a frame of this run has been heard
  bool dry_ = false;      // the ring is empty while the run plays
  bool ended_ = false;    // the run's drain has ended
  uint32_t envelope_;  // frames of fade from silent: fadeFrames_ is full level
  float gain_ = 1.0f;
  bool gainSet_ = false;
  uint64_t played_ = 0;        // frames of the queue's audio taken from the ring
  uint64_t outputFrames_ = 0;  // every frame handed to the sound output, idle silence included
  // Where the ring stood after each recent call, oldest overwritten first. Long enough for two
  // seconds of latency at 10 ms calls; a longer latency is taken for as long as they reach.
  struct Mark {
    uint64_t outputFrames;
    uint64_t read;
    uint64_t played;
  };
  std::array<Mark, 256> marks_{};
  size_t marksKept_ = 0;
  size_t newestMark_ = 0;
};
