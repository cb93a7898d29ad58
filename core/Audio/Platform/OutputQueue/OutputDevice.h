// The small interface between an output queue and the sound output it plays through.
//
// A device pulls audio: on a thread of its own (or, for the manual device, the test's thread) it
// asks the queue's RenderSource for frames, period after period, at its own sample rate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Audio/Platform/PlatformTypes.h"

// What a device pulls from. render() runs on the device's thread and must be real-time safe: it
// never locks, allocates, logs or waits.
class RenderSource {
 public:
  virtual ~RenderSource() = default;
  // Fills `frames` interleaved frames of out. The first frames, as many as the result says, are
  // what a listener hears (the queue's audio, and silence where it ran dry mid-stream); the rest is
  // idle silence (before the first frame, while paused or stopped), which a recording leaves out.
  // `latencyFrames` says how many frames the output still holds before the listener hears the
  // last of these: 0 when what render() returns is heard at once (a clock without latency).
  virtual size_t render(int16_t* out, size_t frames, uint64_t latencyFrames) noexcept = 0;
  // The device has stopped for good on its own (unplugged, its server gone) and calls render() no
  // more. Any thread; real-time safe.
  virtual void lost() noexcept = 0;
};

class OutputDevice {
 public:
  virtual ~OutputDevice() = default;

  // Frames per second the device consumes; fixed from opening on.
  virtual uint32_t sampleRate() const = 0;
  // The most frames one render() call asks for; fixed from opening on. The queue keeps several
  // periods in its ring, so that a period never finds it short while the queue's render pass comes.
  virtual uint32_t periodFrames() const = 0;

  // Begins pulling from source, which must outlive the device or the next stop(). Returns noErr or
  // kAudioQueueErr_DeviceFailed. Starting a started device changes nothing.
  // Any thread, never the device's own; serialised by the caller with stop().
  virtual OSStatus start(RenderSource& source) = 0;
  // Once it returns, no render() call is in progress and none starts until the next start().
  // Any thread, never the device's own; serialised by the caller with start().
  virtual void stop() = 0;
};

// Opens a device of the process-wide selection (OutputDevices.h) for a stream of this rate and
// channel count; the device may take another rate (sampleRate()), never another channel count.
// On failure returns null and sets *status. Any thread.
std::unique_ptr<OutputDevice> OpenOutputDevice(uint32_t sampleRate, uint32_t channels, OSStatus* status);
