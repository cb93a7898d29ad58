// Reports posted to the global work queue. Each task holds the delegate that was set when the
// report was posted and the player itself, so both outlive the task.
#include <cstdio>

#include "Audio/Platform/Dispatch.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"

namespace {

// Any thread, with or without playerStatusMutex; never blocks.
template <typename Report>
void postToDelegate(AudioBufPlayer& player, Report report) {
  if (!player.delegate()) return;
  std::shared_ptr<AudioBufPlayerDelegate> delegate = player.delegate();
  // While the player is being destroyed there is no owner left to keep it alive for the task.
  std::shared_ptr<AudioBufPlayer> self = player.weak_from_this().lock();
  if (!delegate || !self) return;
  dispatch_async(dispatch_get_global_queue(0, 0),
                 [delegate = std::move(delegate), self = std::move(self), report = std::move(report)] {
                   report(*delegate, self.get());
                 });
}

}  // namespace

void AudioBufPlayer::notifyDelegateOfError(AudioBufPlayerError error, const std::string& errorDescription) {
  postToDelegate(*this, [error, errorDescription](AudioBufPlayerDelegate& delegate, AudioBufPlayer* player) {
    delegate.PlayerError(error, player, errorDescription);
  });
}

void AudioBufPlayer::NotifyDelegate_speechPlayerDidPaused(AudioBufPlayerPauseSource source) {
  postToDelegate(*this, [source](AudioBufPlayerDelegate& delegate, AudioBufPlayer* player) {
    delegate.PlayerWasPaused(source, player);
  });
}

void AudioBufPlayer::NotifyDelegate_speechPlayerDidResumed() {
  postToDelegate(*this, [](AudioBufPlayerDelegate& delegate, AudioBufPlayer* player) {
    delegate.PlayerWasResumed(player);
  });
}

void AudioBufPlayer::NotifyDelegate_speechPlayerDidFinished() {
  postToDelegate(*this, [](AudioBufPlayerDelegate& delegate, AudioBufPlayer* player) {
    delegate.PlaybackFinished(player);
  });
}

void AudioBufPlayer::notifyDelegateOfPlatformError(AudioBufPlayerError error, const char* call, OSStatus status) {
  const auto text = FourCCText(status);
  char description[160];
  snprintf(description, sizeof description, "%s returned error %ld (%s)", call, long(status), text.data());
  notifyDelegateOfError(error, description);
}
