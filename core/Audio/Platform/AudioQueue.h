// The output audio queue: plays enqueued buffers of one stream format in order.
//
// Threads: every function may be called from any thread. The output callback and the property
// listener run on the queue's own callback thread, one per queue, never on the caller's thread and
// never inside the device's real-time callback. A callback may call any function of this file,
// AudioQueueDispose of its own queue included.
//
// Handles are unique for the process lifetime: a disposed queue's handle is never handed out again,
// and every call on it returns kAudioQueueErr_InvalidQueue without touching freed memory.
#pragma once

#include "Audio/Platform/PlatformTypes.h"

typedef struct OpaqueAudioQueue* AudioQueueRef;

// A buffer of a queue. The client fills mAudioData and sets mAudioDataByteSize before enqueueing.
struct AudioQueueBuffer {
  const uint32_t mAudioDataBytesCapacity;
  void* const mAudioData;
  uint32_t mAudioDataByteSize;
};
typedef AudioQueueBuffer* AudioQueueBufferRef;

// Called when the queue has finished with a buffer: for a played buffer, once the sound output has
// consumed its last frame. Runs on the queue's callback thread.
typedef void (*AudioQueueOutputCallback)(void* inUserData, AudioQueueRef inAQ, AudioQueueBufferRef inBuffer);
// Called on the queue's callback thread when a listened property (the running state) changes.
typedef void (*AudioQueuePropertyListenerProc)(void* inUserData, AudioQueueRef inAQ, AudioQueuePropertyID inID);

// Creates a queue for linear PCM (16-bit signed little-endian, mono or stereo, any rate) or MP3
// (kAudioFormatMPEGLayer3, decoded on the queue's thread). Run loop and mode must be null.
OSStatus AudioQueueNewOutput(const AudioStreamBasicDescription* inFormat, AudioQueueOutputCallback inCallbackProc,
                             void* inUserData, void* inCallbackRunLoop, void* inCallbackRunLoopMode, uint32_t inFlags,
                             AudioQueueRef* outAQ);

// Allocates a buffer owned by the queue; it is released with the queue.
OSStatus AudioQueueAllocateBuffer(AudioQueueRef inAQ, uint32_t inBufferByteSize, AudioQueueBufferRef* outBuffer);

// Adds a buffer to the end of the queue. For MP3 every packet needs a description; linear PCM takes
// none and is a byte stream across buffers (an odd-length buffer never misaligns later samples).
OSStatus AudioQueueEnqueueBuffer(AudioQueueRef inAQ, AudioQueueBufferRef inBuffer, uint32_t inNumPacketDescs,
                                 const AudioStreamPacketDescription* inPacketDescs);

// Starts or continues playing. Refused with kAudioSessionErr_Interrupted ("!int") while the audio
// session is interrupted and with kAudioSessionErr_InBackground ("!pla") while the application is in
// the background. inStartTime must be null (as soon as possible).
OSStatus AudioQueueStart(AudioQueueRef inAQ, const AudioTimeStamp* inStartTime);

// Pauses, holding the play position; AudioQueueStart continues from it.
OSStatus AudioQueuePause(AudioQueueRef inAQ);

// inImmediate false: stops once everything enqueued so far has been played.
// inImmediate true: stops at once; buffers not played come back through the output callback.
// The running-state listener is told when the queue has stopped.
OSStatus AudioQueueStop(AudioQueueRef inAQ, bool inImmediate);

// Stops the sound at once and releases the queue and its buffers. Never waits for a callback in
// progress (a callback may be waiting for a lock that the caller holds): once it returns no new
// callback of this queue starts. Works from the queue's own callback thread.
OSStatus AudioQueueDispose(AudioQueueRef inAQ, bool inImmediate);

// mSampleTime: frames of enqueued audio that the sound output has played since the queue was first
// started, at the stream's own rate. Fails with kAudioQueueErr_NotStarted before the first start.
// inTimeline and outTimelineDiscontinuity must be null.
OSStatus AudioQueueGetCurrentTime(AudioQueueRef inAQ, void* inTimeline, AudioTimeStamp* outTimeStamp,
                                  bool* outTimelineDiscontinuity);

// kAudioQueueProperty_IsRunning: a uint32_t, non-zero while running.
OSStatus AudioQueueGetProperty(AudioQueueRef inAQ, AudioQueuePropertyID inID, void* outData, uint32_t* ioDataSize);

// Only kAudioQueueProperty_IsRunning can be listened to.
OSStatus AudioQueueAddPropertyListener(AudioQueueRef inAQ, AudioQueuePropertyID inID,
                                       AudioQueuePropertyListenerProc inProc, void* inUserData);

// kAudioQueueParam_Volume: a linear gain applied to the samples.
OSStatus AudioQueueSetParameter(AudioQueueRef inAQ, AudioQueueParameterID inParamID, AudioQueueParameterValue inValue);
