// One output queue: its buffers, the order in which they play, its running state, its sound
// output, its render job (on the process's RenderEngine) and the ordered delivery of its callbacks.
//
// States ("running" is the IsRunning property; each change of it queues a listener call):
//   stopped --start--> running --pause--> paused --start--> running
//   running or paused --stop(false)--> draining: the buffers enqueued so far still play
//   draining --its last frame heard--> stopped
//   any --stop(true)--> stopped; the buffers not played yet come back through the callback
//   any --dispose--> disposed: every call fails, no callback starts any more, the delivery ends
//                    after the callback in progress, the render job retires and the queue is
//                    released with the last task that holds it.
//   any --the sound output lost--> stopped as by stop(true), for good: start and enqueue fail.
// A buffer enqueued while draining joins the drain, so that nothing a producer hands over late is
// lost; only once the sound output has played up to the drain's end (the queue ran dry) does it
// wait for the next start.
//
// Time is as heard: a buffer comes back, the sample time moves and a drain ends once the sound
// output reports the frames heard, its latency after it took them from the ring.
//
// Threads. A render pass (OutputQueueRender.cpp) runs on a thread of the RenderEngine whenever the
// API calls or the sound output ask for one: it carries out immediate stops, collects what has been
// heard into the callbacks to deliver, and renders (decodes, converts) into the ring until it is
// full. The callbacks are delivered in order by one task at a time on the global work queue
// (OutputQueueDelivery.cpp); a client that blocks in a callback delays only this queue's later
// callbacks, never its rendering.
//
// Synchronisation. Everything under "guarded by mutex_" is changed by the API calls (any thread),
// the render pass and the delivery, always under mutex_; no callback and no rendering runs under
// it. The render pass alone renders (outside mutex_) into the ring. It reads a buffer's bytes only
// while the buffer is enqueued; a buffer stops being enqueued only in the delivery, right before its
// callback, and the buffers an immediate stop hands back are held from the delivery until the
// render pass has carried the stop out, so no client rewrites a buffer that is being rendered. The
// sound output sees only the ring and the Playout's atomics.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "Audio/Platform/AudioQueue.h"
#include "Audio/Platform/OutputQueue/OutputDevice.h"
#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "Audio/Platform/OutputQueue/PcmRing.h"
#include "Audio/Platform/OutputQueue/Playout.h"
#include "Audio/Platform/OutputQueue/RenderJob.h"
#include "Audio/Platform/OutputQueue/StreamRenderer.h"

class OutputQueue final : public std::enable_shared_from_this<OutputQueue>, private RenderJob {
 public:
  // Opens the sound output. `format` has passed CheckStreamFormat.
  // Returns null and sets *status on failure. Any thread.
  static std::shared_ptr<OutputQueue> create(AudioQueueRef handle, const AudioStreamBasicDescription& format,
                                             AudioQueueOutputCallback callback, void* userData, OSStatus* status);
  ~OutputQueue();
  OutputQueue(const OutputQueue&) = delete;
  OutputQueue& operator=(const OutputQueue&) = delete;

  // The operations behind AudioQueue.h and OutputDevices.h, with their arguments' form checked.
  // Each runs on any thread, a callback included, never waits for a callback (but
  // advanceManualOutput, see OutputDevices.h), and fails with kAudioQueueErr_InvalidQueue once the
  // queue is disposed.
  OSStatus allocateBuffer(uint32_t size, AudioQueueBufferRef* outBuffer);
  OSStatus enqueue(AudioQueueBufferRef buffer, uint32_t packetCount, const AudioStreamPacketDescription* packets);
  OSStatus start();
  OSStatus pause();
  OSStatus stop(bool immediate);
  // Silences and stops the sound output of a queue that plays, and returns; the render job and the
  // delivery wind down on their own. A queue that no longer plays keeps its sound output until it is
  // released, so that the output plays out what it still holds of a finished drain.
  void dispose();
  OSStatus currentTime(AudioTimeStamp* outTime);
  OSStatus isRunning(uint32_t* outRunning);
  OSStatus addRunningListener(AudioQueuePropertyListenerProc listener, void* userData);
  OSStatus setVolume(float volume);
  OSStatus counters(AudioQueueCounters* outCounters);
  OSStatus advanceManualOutput(uint32_t frames, std::vector<int16_t>* heard);
  OSStatus loseDevice();

 private:
  struct BufferRecord {
    AudioQueueBuffer* header;  // the client's handle, in BufferHandleArena
    std::unique_ptr<uint8_t[]> bytes;
    uint32_t byteSize = 0;     // as enqueued
    std::vector<AudioStreamPacketDescription> packets;  // as enqueued; empty for PCM
    bool enqueued = false;
  };
  // A buffer to play, or (record null) the end of a drain.
  struct Entry {
    BufferRecord* record;
    uint64_t end = 0;        // ring position after its last frame, once rendered
    bool begun = false;      // the render pass has started on it
    bool cancelled = false;  // a drain's end moved further by a later buffer: ends nothing
  };
  // A callback to deliver: a buffer coming back, or (record null) a running-state change.
  struct Event {
    BufferRecord* record;
  };
  struct Listener {
    AudioQueuePropertyListenerProc proc;
    void* userData;
  };

  OutputQueue(AudioQueueRef handle, const AudioStreamBasicDescription& format, AudioQueueOutputCallback callback,
              void* userData, std::unique_ptr<OutputDevice> device, OSStatus* status);

  // Caller holds mutex_.
  void publishControl();
  // Caller holds mutex_: a callback to deliver, after those before it.
  void pushEvent(Event event);
  // Caller holds mutex_: asks for a render pass that sees every change made so far.
  void requestRender();
  // Caller holds mutex_: the render pass has nothing left that an earlier request asked for, and no
  // callback is waiting or in progress.
  bool settled() const;
  // Caller holds mutex_, while draining: puts `record` into the drain, before its end.
  void addToDrain(BufferRecord& record);
  // Caller holds mutex_: the immediate stop, also what a lost sound output ends in.
  void stopNow();
  // Caller holds mutex_.
  bool deviceLost() const { return deviceLost_ || playout_.isLost(); }
  // Caller holds mutex_: how far the ring may fall before a pass refills it.
  uint64_t lowWaterFrames() const;
  // Caller holds mutex_: frames of the sound output to frames of the stream.
  uint64_t toStreamFrames(uint64_t outputFrames) const;

  // --- the render pass (OutputQueueRender.cpp) ---
  bool renderPass() override;
  void retire() override;
  // Caller holds mutex_. Each does its part of one round of the pass.
  void applyImmediateStop();
  void collectPlayedEntries(uint64_t readPosition);
  void finishDrain();
  void advanceRenderCursor();
  // Caller holds mutex_: whether a delivery task is to be posted now, which the caller does once
  // it has released mutex_.
  bool claimDelivery();
  // Where the sound output is to ask for the next pass: a read position that leaves the ring half
  // full, a heard position that ends an entry.
  struct WakeThresholds {
    uint64_t read = Playout::kNoEnd;
    uint64_t heard = Playout::kNoEnd;
  };
  WakeThresholds wakeThresholds() const;
  // Without mutex_: renders one piece into the ring; false when the entry is done or the ring full.
  bool renderStep();

  // --- the delivery (OutputQueueDelivery.cpp) ---
  void postDelivery();
  // Whether the calling thread is delivering this queue's callbacks now.
  bool isDelivering() const;
  // A task of the global work queue: delivers the callbacks queued so far, in order.
  void deliverEvents();
  void deliver(const Event& event);

  const AudioQueueRef handle_;
  const AudioQueueOutputCallback callback_;
  void* const userData_;
  const bool packetized_;  // MP3: every buffer comes with packet descriptions
  const uint32_t streamRate_;
  const uint32_t outputRate_;
  PcmRing ring_;
  Playout playout_;
  StreamRenderer renderer_;
  std::unique_ptr<OutputDevice> device_;

  // --- the render pass's own ---
  // What entries_[rendered_] is going through: a buffer read piece by piece, or a drain's end
  // (the stream is to be finished, then has been, and the entry is done once the staged frames
  // are in the ring).
  enum class Rendering { Nothing, Buffer, StreamToFinish, StreamFinished } rendering_ = Rendering::Nothing;
  RenderCursor cursor_;

  mutable std::mutex mutex_;
  std::condition_variable settled_;  // signals settled() and disposal
  // Held by the queue itself until its render job retires, so that a pass asked for from the sound
  // output never finds it gone; the render pass's own.
  std::shared_ptr<OutputQueue> keepAlive_;
  // --- guarded by mutex_ ---
  bool disposed_ = false;
  bool running_ = false;
  bool paused_ = false;
  bool draining_ = false;
  bool deviceStarted_ = false;
  bool deviceLost_ = false;          // the loss has been carried out
  uint32_t run_ = 0;                 // runs started; a run begins with each start from stopped
  int64_t firstStartNanos_ = 0;      // steady clock; 0 before the first start
  uint64_t stopsRequested_ = 0;      // immediate stops asked for
  uint64_t stopsApplied_ = 0;        // immediate stops the render pass has carried out
  std::unordered_map<AudioQueueBuffer*, std::unique_ptr<BufferRecord>> buffers_;
  std::deque<Entry> entries_;        // to play, in order
  size_t rendered_ = 0;              // entries_ before this index are in the ring
  std::deque<Event> events_;         // to deliver, in order
  // Events that follow an immediate stop not carried out yet: they reach events_ once it is.
  std::deque<Event> heldEvents_;
  bool delivering_ = false;          // a delivery task is posted or running
  std::vector<Listener> listeners_;
  bool renderWantsEntries_ = false;  // the last pass found nothing left to render
  uint64_t renderRequests_ = 0;      // passes asked for by the API side
  uint64_t renderRequestsDone_ = 0;  // of those, seen by a pass that then had nothing left
};
