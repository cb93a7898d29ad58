// The player's delegate for one sentence. Each sentence has its own, so that a report that the
// work queue delivers late is still told apart from the next sentence's.
//
// Calls arrive on several threads at once (the feeding thread with the player's mutex held, the
// output queue's callback thread, work-queue tasks): each only stamps the time and hands the event
// to the main loop. Nothing here calls the player.
#pragma once

#include <atomic>
#include <memory>

#include "Audio/Players/Impl_iOS/AudioBufPlayerDelegate.h"
#include "EventQueue.h"
#include "SessionClock.h"

class SentenceDelegate final : public AudioBufPlayerDelegate {
 public:
  SentenceDelegate(int sentence, const SessionClock& clock, std::shared_ptr<EventQueue> events);

  // Whether aboutToEnd has arrived: the player refuses further audio of this sentence from then on.
  // The producer asks before each chunk, so that it does not start a new sentence with the rest of
  // this one once the player has ended it.
  bool runOutReached() const { return runOutReached_.load(std::memory_order_acquire); }

  void playerWillStartPlayback(AudioBufPlayer* player) override;
  void updatedTotalLength(double length, AudioBufPlayer* player) override;
  void playProgressChanged(double position, AudioBufPlayer* player) override;
  void aboutToEnd(AudioBufPlayer* player) override;
  void PlaybackFinished(AudioBufPlayer* player) override;
  void PlayerError(AudioBufPlayerError error, AudioBufPlayer* player, const std::string& description) override;
  void PlayerWasPaused(AudioBufPlayerPauseSource source, AudioBufPlayer* player) override;
  void PlayerWasResumed(AudioBufPlayer* player) override;

 private:
  SessionEvent stamped(SessionEvent::Kind kind) const;

  const int sentence_;
  const SessionClock clock_;
  const std::shared_ptr<EventQueue> events_;  // shared: work-queue tasks may outlive the session
  std::atomic<bool> runOutReached_{false};
};
