// The functions of AudioQueue.h and the queue part of OutputDevices.h: argument checks, handle
// lookup, and the call into the OutputQueue. Nothing is thrown past them: running out of memory
// is a status like any other.
#include "Audio/Platform/AudioQueue.h"

#include <new>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "Audio/Platform/OutputQueue/OutputFaults.h"
#include "Audio/Platform/OutputQueue/OutputQueue.h"
#include "Audio/Platform/OutputQueue/QueueRegistry.h"

namespace {
// Runs `operation` on the queue of `handle`, or fails as a disposed queue does.
template <typename Operation>
OSStatus withQueue(AudioQueueRef handle, Operation operation) {
  const std::shared_ptr<OutputQueue> queue = QueueRegistry::instance().find(handle);
  if (!queue) {
    return kAudioQueueErr_InvalidQueue;
  }
  try {
    return operation(*queue);
  } catch (const std::bad_alloc&) {
    return kAudioQueueErr_OutOfMemory;
  }
}
}  // namespace

OSStatus AudioQueueNewOutput(const AudioStreamBasicDescription* inFormat, AudioQueueOutputCallback inCallbackProc,
                             void* inUserData, void* inCallbackRunLoop, void* inCallbackRunLoopMode, uint32_t inFlags,
                             AudioQueueRef* outAQ) {
  if (inFormat == nullptr || inCallbackProc == nullptr || inCallbackRunLoop != nullptr ||
      inCallbackRunLoopMode != nullptr || inFlags != 0 || outAQ == nullptr) {
    return kAudioQueueErr_InvalidParameter;
  }
  OSStatus status = CheckStreamFormat(*inFormat);
  if (status == noErr) {
    status = TakeArmedFault(AudioQueueCall::NewOutput);
  }
  if (status != noErr) {
    return status;
  }
  QueueRegistry& registry = QueueRegistry::instance();
  const AudioQueueRef handle = registry.newHandle();
  try {
    std::shared_ptr<OutputQueue> queue = OutputQueue::create(handle, *inFormat, inCallbackProc, inUserData, &status);
    if (!queue) {
      return status;
    }
    registry.add(handle, std::move(queue));
  } catch (const std::bad_alloc&) {
    return kAudioQueueErr_OutOfMemory;
  }
  *outAQ = handle;
  return noErr;
}

OSStatus AudioQueueAllocateBuffer(AudioQueueRef inAQ, uint32_t inBufferByteSize, AudioQueueBufferRef* outBuffer) {
  return withQueue(inAQ, [&](OutputQueue& queue) {
    if (outBuffer == nullptr) {
      return kAudioQueueErr_InvalidParameter;
    }
    const OSStatus fault = TakeArmedFault(AudioQueueCall::AllocateBuffer);
    return fault != noErr ? fault : queue.allocateBuffer(inBufferByteSize, outBuffer);
  });
}

OSStatus AudioQueueEnqueueBuffer(AudioQueueRef inAQ, AudioQueueBufferRef inBuffer, uint32_t inNumPacketDescs,
                                 const AudioStreamPacketDescription* inPacketDescs) {
  return withQueue(inAQ, [&](OutputQueue& queue) {
    const OSStatus fault = TakeArmedFault(AudioQueueCall::EnqueueBuffer);
    return fault != noErr ? fault : queue.enqueue(inBuffer, inNumPacketDescs, inPacketDescs);
  });
}

OSStatus AudioQueueStart(AudioQueueRef inAQ, const AudioTimeStamp* inStartTime) {
  return withQueue(inAQ, [&](OutputQueue& queue) {
    if (inStartTime != nullptr) {
      return kAudioQueueErr_InvalidParameter;
    }
    const OSStatus fault = TakeArmedFault(AudioQueueCall::Start);
    return fault != noErr ? fault : queue.start();
  });
}

OSStatus AudioQueuePause(AudioQueueRef inAQ) {
  return withQueue(inAQ, [](OutputQueue& queue) { return queue.pause(); });
}

OSStatus AudioQueueStop(AudioQueueRef inAQ, bool inImmediate) {
  return withQueue(inAQ, [&](OutputQueue& queue) { return queue.stop(inImmediate); });
}

OSStatus AudioQueueDispose(AudioQueueRef inAQ, bool) {
  const std::shared_ptr<OutputQueue> queue = QueueRegistry::instance().remove(inAQ);
  if (!queue) {
    return kAudioQueueErr_InvalidQueue;
  }
  queue->dispose();
  return noErr;
}

OSStatus AudioQueueGetCurrentTime(AudioQueueRef inAQ, void* inTimeline, AudioTimeStamp* outTimeStamp,
                                  bool* outTimelineDiscontinuity) {
  return withQueue(inAQ, [&](OutputQueue& queue) {
    if (inTimeline != nullptr || outTimelineDiscontinuity != nullptr || outTimeStamp == nullptr) {
      return kAudioQueueErr_InvalidParameter;
    }
    return queue.currentTime(outTimeStamp);
  });
}

OSStatus AudioQueueGetProperty(AudioQueueRef inAQ, AudioQueuePropertyID inID, void* outData, uint32_t* ioDataSize) {
  return withQueue(inAQ, [&](OutputQueue& queue) {
    if (inID != kAudioQueueProperty_IsRunning) {
      return kAudioQueueErr_InvalidProperty;
    }
    if (outData == nullptr || ioDataSize == nullptr || *ioDataSize < sizeof(uint32_t)) {
      return kAudioQueueErr_InvalidProperty;
    }
    *ioDataSize = sizeof(uint32_t);
    return queue.isRunning(static_cast<uint32_t*>(outData));
  });
}

OSStatus AudioQueueAddPropertyListener(AudioQueueRef inAQ, AudioQueuePropertyID inID,
                                       AudioQueuePropertyListenerProc inProc, void* inUserData) {
  return withQueue(inAQ, [&](OutputQueue& queue) {
    if (inID != kAudioQueueProperty_IsRunning) {
      return kAudioQueueErr_InvalidProperty;
    }
    return inProc == nullptr ? kAudioQueueErr_InvalidParameter : queue.addRunningListener(inProc, inUserData);
  });
}

OSStatus AudioQueueSetParameter(AudioQueueRef inAQ, AudioQueueParameterID inParamID, AudioQueueParameterValue inValue) {
  return withQueue(inAQ, [&](OutputQueue& queue) {
    if (inParamID != kAudioQueueParam_Volume || !(inValue >= 0.0f && inValue <= 1.0f)) {
      return kAudioQueueErr_InvalidParameter;
    }
    return queue.setVolume(inValue);
  });
}

OSStatus AudioOutputManualAdvance(AudioQueueRef queue, uint32_t frames, std::vector<int16_t>* heard) {
  return withQueue(queue, [&](OutputQueue& found) { return found.advanceManualOutput(frames, heard); });
}

OSStatus AudioQueueGetCounters(AudioQueueRef queue, AudioQueueCounters* outCounters) {
  return withQueue(queue, [&](OutputQueue& found) {
    return outCounters == nullptr ? kAudioQueueErr_InvalidParameter : found.counters(outCounters);
  });
}

AudioQueueRef AudioOutputNewestQueue() { return QueueRegistry::instance().newestHandle(); }

bool AudioQueueWaitForReleases(double timeoutSeconds) {
  return QueueRegistry::instance().waitForReleases(timeoutSeconds);
}

OSStatus AudioQueueLoseDevice(AudioQueueRef queue) {
  return withQueue(queue, [](OutputQueue& found) { return found.loseDevice(); });
}
