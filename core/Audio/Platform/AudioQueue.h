// The output audio queue: plays enqueued buffers of one stream format in order.
//
// Threads: every function may be called from any thread. The output callback and the property
// listener of a queue run on a thread of the global work queue (Dispatch.h), one callback at a time
// per queue and in order, never on the caller's thread, never inside the device's real-time
// callback and never on the threads that render: a callback that blocks delays that queue's later
// callbacks, not its sound. Different queues' callbacks may run at once on different threads. A
// callback may call any function of this file, AudioQueueDispose of its own queue included.
//
// Handles are unique for the process lifetime: a disposed queue's handle is never handed out again,
// and every call on it returns kAudioQueueErr_InvalidQueue without touching freed memory.
#pragma once

#include "Audio/Platform/PlatformTypes.h"

// A buffer of a queue. The client fills mAudioData and sets mAudioDataByteSize before enqueueing.
struct AudioQueueBuffer {
  const uint32_t mAudioDataBytesCapacity;
  void* const mAudioData;
  uint32_t mAudioDataByteSize;
};

// Called when the queue has finished with a buffer: for a played buffer, once its last frame has
// been heard (the sound output's latency after the output took it). Played buffers come back in
// batches: about a quarter of those enqueued at a time, and whatever has been heard whenever the
// queue renders ahead. Runs as the queue's callbacks do (see Threads above).
typedef void (*AudioQueueOutputCallback)(void* inUserData, AudioQueueRef inAQ, AudioQueueBufferRef inBuffer);
// Called, as the output callback is and in order with it, when a listened property (the running
// state) changes.
typedef void (*AudioQueuePropertyListenerProc)(void* inUserData, AudioQueueRef inAQ, AudioQueuePropertyID inID);

// Creates a queue for linear PCM (16-bit signed little-endian, mono or stereo, any whole rate from
// 1000 to 768000 Hz) or MP3 (kAudioFormatMPEGLayer3 at an MPEG rate, mono or stereo, decoded on the
// process's render threads). Run loop and mode must be null, flags 0. It plays through the sound output the
// host program selected (OutputQueue/OutputDevices.h). Fails with kAudioQueueErr_UnsupportedFormat,
// kAudioQueueErr_DeviceFailed when the sound output cannot be opened, or kAudioQueueErr_InvalidParameter.
OSStatus AudioQueueNewOutput(const AudioStreamBasicDescription* inFormat, AudioQueueOutputCallback inCallbackProc,
                             void* inUserData, void* inCallbackRunLoop, void* inCallbackRunLoopMode, uint32_t inFlags,
                             AudioQueueRef* outAQ);

// Allocates a buffer owned by the queue, of 1 byte to 4 MiB; it is released with the queue. A queue
// holds at most 4096 buffers (then kAudioQueueErr_OutOfMemory).
OSStatus AudioQueueAllocateBuffer(AudioQueueRef inAQ, uint32_t inBufferByteSize, AudioQueueBufferRef* outBuffer);

// Adds a buffer to the end of the queue; until it comes back through the output callback the client
// leaves it alone. For MP3 every packet needs a description (within the buffer, not empty); a packet
// that yields no audio (damaged, or of another rate or channel count) plays nothing. Linear PCM takes
// no descriptions and is a byte stream across buffers (an odd-length buffer never misaligns later
// samples). Fails with kAudioQueueErr_InvalidBuffer (not this queue's), kAudioQueueErr_BufferInQueue,
// kAudioQueueErr_BufferEmpty or kAudioQueueErr_InvalidParameter.
OSStatus AudioQueueEnqueueBuffer(AudioQueueRef inAQ, AudioQueueBufferRef inBuffer, uint32_t inNumPacketDescs,
                                 const AudioStreamPacketDescription* inPacketDescs);

// Starts or continues playing. Refused with kAudioSessionErr_Interrupted ("!int") while the audio
// session is interrupted and with kAudioSessionErr_InBackground ("!pla") while the application is in
// the background, and with kAudioQueueErr_DeviceFailed when the sound output does not start.
// inStartTime must be null (as soon as possible).
OSStatus AudioQueueStart(AudioQueueRef inAQ, const AudioTimeStamp* inStartTime);

// Pauses, holding the play position (the sound fades out over 5 ms); AudioQueueStart continues from it,
// fading in. The running state does not change. Does nothing to a queue that is not running.
OSStatus AudioQueuePause(AudioQueueRef inAQ);

// inImmediate false: stops once everything enqueued so far has been heard; buffers enqueued later
// wait for the next start. Does nothing to a queue that is not running.
// inImmediate true: stops at once (a 5 ms fade); buffers not played come back through the output
// callback, in order, before the running-state listener is told.
// The running-state listener is told when the queue has stopped.
OSStatus AudioQueueStop(AudioQueueRef inAQ, bool inImmediate);

// Stops the sound at once and releases the queue and its buffers, whatever inImmediate; what the
// sound output still holds of a finished drain plays out. Never waits
// for a callback in progress (a callback may be waiting for a lock that the caller holds): that one
// may still run after the return, but no new callback of this queue starts. Buffers still enqueued
// do not come back. Works from the queue's own callbacks.
OSStatus AudioQueueDispose(AudioQueueRef inAQ, bool inImmediate);

// mSampleTime: frames of enqueued audio heard since the queue was first started (what the sound
// output reports having played, after its latency), at the stream's own rate. Fails with kAudioQueueErr_NotStarted before the first start.
// inTimeline and outTimelineDiscontinuity must be null.
OSStatus AudioQueueGetCurrentTime(AudioQueueRef inAQ, void* inTimeline, AudioTimeStamp* outTimeStamp,
                                  bool* outTimelineDiscontinuity);

// kAudioQueueProperty_IsRunning: a uint32_t, non-zero while running.
OSStatus AudioQueueGetProperty(AudioQueueRef inAQ, AudioQueuePropertyID inID, void* outData, uint32_t* ioDataSize);

// Only kAudioQueueProperty_IsRunning can be listened to. Adding the same listener and user data
// twice adds it once; a queue takes 32 listeners (then kAudioQueueErr_OutOfMemory).
OSStatus AudioQueueAddPropertyListener(AudioQueueRef inAQ, AudioQueuePropertyID inID,
                                       AudioQueuePropertyListenerProc inProc, void* inUserData);

// kAudioQueueParam_Volume: a linear gain from 0 to 1 applied to the samples; a change while playing
// slides there within 5 ms.
OSStatus AudioQueueSetParameter(AudioQueueRef inAQ, AudioQueueParameterID inParamID, AudioQueueParameterValue inValue);
