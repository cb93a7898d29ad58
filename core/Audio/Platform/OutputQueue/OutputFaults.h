// Switches that make the output queues fail the way a platform can, so that tests can see each
// client of them end in a defined state. Process-wide; every function may be called from any thread.
#pragma once

#include <cstdint>

#include "Audio/Platform/AudioQueue.h"

enum class AudioQueueCall { NewOutput, AllocateBuffer, EnqueueBuffer, Start };

// The next `count` calls of `call` in the process that pass their argument checks fail with
// `status` and change nothing. A count of 0 disarms.
void AudioQueueFailNextCalls(AudioQueueCall call, OSStatus status, uint32_t count = 1);

// The sound output of `queue` goes away while it plays, as an unplugged device does. The queue
// reacts as it does to a real loss: it stops at once, its unplayed buffers come back, its running
// state changes to 0, and every later start or enqueue fails with kAudioQueueErr_DeviceFailed. A
// queue created afterwards opens the sound output anew. Fails with kAudioQueueErr_InvalidQueue for
// an unknown or disposed queue.
OSStatus AudioQueueLoseDevice(AudioQueueRef queue);

// The queue's side: the status that this call of `call` must fail with, or noErr.
OSStatus TakeArmedFault(AudioQueueCall call);
