// Delegate calls made with playerStatusMutex held, and the refusal of the player's operations
// called from inside them: the mutex is not recursive, so such a call would wait for ever on the
// lock its own thread holds. Each thread keeps the chain of the locked delegate calls it is inside
// (a delegate of one player may feed another, whose delegate may call back into the first).
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"

namespace {

class LockedDelegateCall {
 public:
  explicit LockedDelegateCall(const AudioBufPlayer& player) : player_(player), outer_(innermost) { innermost = this; }
  ~LockedDelegateCall() { innermost = outer_; }
  LockedDelegateCall(const LockedDelegateCall&) = delete;
  LockedDelegateCall& operator=(const LockedDelegateCall&) = delete;

  static bool isInsideOf(const AudioBufPlayer& player) {
    for (const LockedDelegateCall* call = innermost; call; call = call->outer_) {
      if (&call->player_ == &player) return true;
    }
    return false;
  }

 private:
  static thread_local const LockedDelegateCall* innermost;
  const AudioBufPlayer& player_;
  const LockedDelegateCall* const outer_;
};

thread_local const LockedDelegateCall* LockedDelegateCall::innermost = nullptr;

}  // namespace

void AudioBufPlayer::tellDelegateWhileLocked(const std::function<void(AudioBufPlayerDelegate&)>& call) {
  const std::shared_ptr<AudioBufPlayerDelegate> delegate = this->delegate();
  if (!delegate) return;
  const LockedDelegateCall inside(*this);
  call(*delegate);
}

bool AudioBufPlayer::refusesReentry(const char* operation) const {
  if (!LockedDelegateCall::isInsideOf(*this)) return false;
  LOG_ERROR("%s refused: called from inside playerWillStartPlayback, updatedTotalLength or the PlaybackFinished "
            "of an empty first chunk, which the player sends with its lock held; call it from another thread",
            operation);
  return true;
}
