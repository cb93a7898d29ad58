// Work that the process's render engine does for one output queue: passes of rendering, one at a
// time, on one of the engine's few threads, as often as anything asks for one.
//
// wantRender() is real-time safe (atomics, and a futex wake only while a render thread sleeps), so
// the sound output's callback asks for a pass directly. A job asked for while its pass runs gets
// one more pass after it; asks while it waits for its pass change nothing.
#pragma once

#include <atomic>
#include <cstdint>

class RenderJob {
 public:
  RenderJob() = default;
  RenderJob(const RenderJob&) = delete;
  RenderJob& operator=(const RenderJob&) = delete;

  // Any thread, the sound output's real-time callback included.
  void wantRender() noexcept;

 protected:
  ~RenderJob() = default;

  // On a render thread, never two at once. Returns false when the job is done for good: it then
  // gets no pass again, and retire() is the engine's last touch.
  virtual bool renderPass() = 0;
  // On a render thread, once, after the last pass; the job may be destroyed inside it.
  virtual void retire() = 0;

 private:
  friend class RenderEngine;
  enum State : uint8_t { Idle, Scheduled, Running, Rescheduled, Retired };

  std::atomic<uint8_t> state_{Idle};
  RenderJob* next_ = nullptr;  // in the engine's list while Scheduled
};
