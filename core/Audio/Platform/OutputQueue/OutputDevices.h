// What a host program (bufplay, the tests, the benchmarks) can do with the sound outputs and the
// output queues beyond AudioQueue.h: choose where queues play, drive the manual clock, read a
// queue's counters, and wait until disposed queues have let go of everything.
//
// Every function may be called from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Audio/Platform/PlatformTypes.h"
#include "audiobufplayer_export.h"

// Chooses the sound output of the queues created from now on, for the whole process; queues that
// exist keep theirs. `output` is one of:
//   "default"      the machine's sound output (PortAudio). When the machine has none, the null
//                  output, announced by one line on standard error the first time.
//   "device:NAME"  the sound output of that name, one of PortAudioOutputNames().
//   "null"         a real-time clock (periods of 10 ms) that discards the audio.
//   "wav:PATH"     records what would be heard into a WAV file at the stream's rate and channel
//                  count, on the same clock as "null". One file per queue: the first queue created
//                  after this call writes PATH, the next ones PATH with "-2", "-3"... before its
//                  extension ("out.wav", "out-2.wav"). Each file is a valid WAV file at every
//                  moment, and complete once its queue has been disposed. What is heard is the
//                  queue's audio, with silence where it ran dry mid-stream; the time before the
//                  first frame, pauses and the time after a stop are left out.
//   "manual"       a clock that only AudioOutputManualAdvance moves, for deterministic tests.
//   "manual:RATE"  the same, for a sound output that takes RATE frames per second only: the queue
//                  converts, as it does for a real output that does not take the stream's rate.
// `speed` runs the "null" and "wav" clocks that many times faster than real time (benchmarks): a
// period then holds `speed` times as many frames (up to a second of audio), so a faster clock
// wakes no more often. It must be 1 for the others. `latencySeconds` (0 to 2) makes "null", "wav"
// and "manual" behave as a sound output that holds its audio that long before it is heard: the
// queue's time, its buffers' return and a drain's end come that much later; the recording does
// not change. It must be 0 for "default", whose latency is the machine's. Returns
// kAudioQueueErr_InvalidParameter for anything else, and then changes nothing. Before any call the
// selection is "default".
AUDIOBUFPLAYER_EXPORT OSStatus AudioOutputSelect(const std::string& output, double speed = 1.0, double latencySeconds = 0.0);

// Whether the machine has a sound output for "default". The first call sets PortAudio up, once per
// process; it prints nothing.
AUDIOBUFPLAYER_EXPORT bool PortAudioOutputExists();

// The names of the machine's sound outputs, as PortAudio gives them (host API devices such as
// "default", "pulse" or "HDA Intel PCH: ALC3246 Analog (hw:0,0)"); empty when there are none.
AUDIOBUFPLAYER_EXPORT std::vector<std::string> PortAudioOutputNames();

// Moves the manual clock of `queue` by `frames` frames of its sound output, on the calling thread,
// as its sound output would, period by period (10 ms). Before each period it waits until the
// queue has done all it can (rendered as far as the ring allows, delivered every callback that is
// due), so the outcome depends only on the calls made before. What is heard is appended to *heard
// (interleaved; may be null). frames 0 only waits. Called from one of the queue's own callbacks it
// does not wait. Do not call it while a callback of the queue waits for the
// caller. Fails with kAudioQueueErr_InvalidQueue for an unknown or disposed queue and with
// kAudioQueueErr_InvalidParameter when the queue does not play through a manual clock.
AUDIOBUFPLAYER_EXPORT OSStatus AudioOutputManualAdvance(AudioQueueRef queue, uint32_t frames,
                                                      std::vector<int16_t>* heard);

// What a queue has done so far. Frames are counted at the stream's own rate.
struct AudioQueueCounters {
  uint64_t framesPlayed = 0;           // frames of enqueued audio heard; AudioQueueGetCurrentTime's mSampleTime
  uint64_t underruns = 0;              // times the audio ran dry while the queue played and more was due
  uint64_t silentFramesInserted = 0;   // frames of silence heard in those gaps
  double firstFrameLatency = -1.0;     // seconds from the first start to the first frame heard; -1 before
  uint64_t undecodablePackets = 0;     // MP3 packets that yielded no audio (damaged, or of another format)
};
AUDIOBUFPLAYER_EXPORT OSStatus AudioQueueGetCounters(AudioQueueRef queue, AudioQueueCounters* outCounters);

// The queue created last in the process (disposed or not), or null before the first: a host that
// plays one sentence at a time reads the current sentence's counters through it.
AUDIOBUFPLAYER_EXPORT AudioQueueRef AudioOutputNewestQueue();

// Waits until every queue disposed so far has finished its last callback and released its memory
// and sound output, or until the timeout passes. Returns whether they all have.
AUDIOBUFPLAYER_EXPORT bool AudioQueueWaitForReleases(double timeoutSeconds);
