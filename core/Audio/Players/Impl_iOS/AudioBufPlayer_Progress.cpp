// The play position, polled once per played buffer, and the end of a sentence 0.25 s before the
// received audio runs out. Runs on the output queue's callback thread: it never takes
// playerStatusMutex, reads the counters through atomics and sets PS_ENDING atomically.
#include "Audio/Platform/AudioQueue.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"

namespace {
// Stopping the queue this long before the received audio runs out lets it play out what it holds
// instead of running dry in the middle of the sentence.
constexpr double aboutToRunOutOfDataWarningLimit = 0.25;
}  // namespace

void AudioBufPlayer::outputPlayProgress(AudioQueueRef queue) {
  if (!hasStatus(PS_ACTIVE)) return;
  ProgressClock clock;
  {
    std::lock_guard lock(progressPollMutex);
    if (!pollMayActOn(queue)) return;
    clock = progressClock;
  }
  AudioTimeStamp timeStamp{};
  const OSStatus status = AudioQueueGetCurrentTime(queue, nullptr, &timeStamp, nullptr);
  if (status != noErr) {
    LOG_DEBUG("call AudioQueueGetCurrentTime returned: %d ignore value", int(status));
    return;
  }
  // Measured against this queue's clock alone, a request whose format changed would never come
  // within reach of its received length, and would never end.
  const double played = clock.startOffset + timeStamp.mSampleTime / clock.sampleRate;
  LOG_TRACE("current playtime = %f", played);

  const double received = receivedAudioLength.load();
  std::shared_ptr<AudioBufPlayerDelegate> delegate = this->delegate();
  if (played > received - aboutToRunOutOfDataWarningLimit) {
    LOG_DEBUG("WARN Will run out of data: played %.4f receivedAudioLength: %.4f, warn limit: %.4f", played, received,
              aboutToRunOutOfDataWarningLimit);
    {
      std::lock_guard lock(progressPollMutex);
      // The request may have ended, or another begun, since the position was read; while this lock
      // is held, neither can happen.
      if (!pollMayActOn(queue)) return;
      // Set before the stop: a resume that restarts the queue after it played out sees the bit and
      // asks for the stop again (resumeIfNeeded).
      setStatus(PS_ENDING);
      AudioQueueStop(queue, false);
    }
    broadcastStatusChange();
    if (delegate) delegate->aboutToEnd(this);
  }
  if (delegate) delegate->playProgressChanged(played + reportAudioLenOffset(), this);
}

bool AudioBufPlayer::pollMayActOn(AudioQueueRef queue) const {
  return queue && queue == progressClock.queue && progressClock.request == requestNumber && hasStatus(PS_ACTIVE);
}
