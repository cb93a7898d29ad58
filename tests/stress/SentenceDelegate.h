// The stress test's delegate: one for every feeding call, so that each playing of a sentence has a
// delegate of its own. Reports go to the delegate set by the playData that started the playing, and
// a chunk appended after a stop and a start starts a new playing with the delegate of that call.
// A delegate that saw playerWillStartPlayback must then see its playing end: PlaybackFinished or
// PlayerError, or a stop or release of the player while it was the player's delegate.
//
// Every call checks what must hold whatever the interleaving: it comes for the player the delegate
// was given to, and that player is alive (not being destroyed) while the call runs. The live count
// of delegates shows any the player kept.
//
// A delegate may be handed the client's last reference to the player, and drop it in its next call
// made outside the player's locks (or with itself): the player then goes away on the output queue's
// callback thread or on a thread of the work queue.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "stress/StressWatchdog.h"

namespace stress_test {

class SentenceDelegate final : public AudioBufPlayerDelegate {
 public:
  enum class End { None, Finished, Error, Stopped, Released };

  SentenceDelegate(AudioBufPlayer* player, std::shared_ptr<StressWatchdog> watchdog)
      : player_(player), watchdog_(std::move(watchdog)) {
    live_.fetch_add(1);
  }
  ~SentenceDelegate() override { live_.fetch_sub(1); }

  static int live() { return live_.load(); }
  // The first violation seen by any delegate, or empty.
  static std::string violation() {
    std::lock_guard lock(violationMutex());
    return violationText();
  }

  // Whether a playing began with this delegate. Final once the feeding call has returned.
  bool started() {
    std::lock_guard lock(mutex_);
    return started_;
  }
  // The first end counts; an end of a playing that never began is kept and does no harm.
  void end(End end) {
    note("ended:" + std::to_string(int(end)));
    {
      std::lock_guard lock(mutex_);
      if (end_ == End::None) end_ = end;
    }
    changed_.notify_all();
  }
  // Waits until the playing has ended; the watchdog catches one that never does.
  End awaitEnd() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return end_ != End::None; });
    return end_;
  }
  // What happened, for the report of a stall: the calls but the frequent ones, the results but OK.
  void note(const std::string& what) {
    std::lock_guard lock(mutex_);
    if (history_.size() < kHistoryLimit) history_ += what + " ";
  }
  std::string history() {
    std::lock_guard lock(mutex_);
    return history_ + "(" + std::to_string(frequentCalls_) + " length and position reports)";
  }
  void holdUntilNextCall(std::shared_ptr<AudioBufPlayer> player) {
    std::lock_guard lock(mutex_);
    handedOver_ = std::move(player);
  }

  void playerWillStartPlayback(AudioBufPlayer* player) override {
    check(player, "playerWillStartPlayback");
    std::lock_guard lock(mutex_);
    started_ = true;
  }
  void updatedTotalLength(double, AudioBufPlayer* player) override { check(player, nullptr); }
  void playProgressChanged(double, AudioBufPlayer* player) override {
    check(player, nullptr);
    dropHandedOver();
  }
  void aboutToEnd(AudioBufPlayer* player) override {
    check(player, nullptr);
    dropHandedOver();
  }
  void PlaybackFinished(AudioBufPlayer* player) override {
    check(player, "PlaybackFinished");
    end(End::Finished);
    dropHandedOver();
  }
  void PlayerError(AudioBufPlayerError error, AudioBufPlayer* player, const std::string& description) override {
    check(player, ("PlayerError(" + std::to_string(error) + ", " + description + ")").c_str());
    end(End::Error);
    dropHandedOver();
  }
  void PlayerWasPaused(AudioBufPlayerPauseSource source, AudioBufPlayer* player) override {
    check(player, ("PlayerWasPaused(" + std::to_string(source) + ")").c_str());
    dropHandedOver();
  }
  void PlayerWasResumed(AudioBufPlayer* player) override {
    check(player, "PlayerWasResumed");
    dropHandedOver();
  }

 private:
  static constexpr size_t kHistoryLimit = 2000;

  // call: the name noted in the history, or null for the frequent calls.
  void check(AudioBufPlayer* player, const char* call) {
    watchdog_->progress();
    if (call) {
      note(call);
    } else {
      frequentCalls_.fetch_add(1);
    }
    if (player != player_) return fail(call, "came for another player");
    // Whoever calls holds the player; once its destruction has begun, nobody may.
    if (!player->weak_from_this().lock()) fail(call, "came while the player was being destroyed");
  }
  void dropHandedOver() {
    std::shared_ptr<AudioBufPlayer> player;
    std::lock_guard lock(mutex_);
    player = std::move(handedOver_);  // released after the lock
  }
  static void fail(const char* call, const char* what) {
    std::lock_guard lock(violationMutex());
    if (violationText().empty()) violationText() = std::string(call ? call : "a progress report") + " " + what;
  }
  static std::mutex& violationMutex() {
    static std::mutex mutex;
    return mutex;
  }
  static std::string& violationText() {
    static std::string text;  // guarded by violationMutex()
    return text;
  }

  static inline std::atomic<int> live_{0};
  std::atomic<int> frequentCalls_{0};
  AudioBufPlayer* const player_;
  const std::shared_ptr<StressWatchdog> watchdog_;  // a late call must still find it
  std::mutex mutex_;
  std::condition_variable changed_;
  // --- guarded by mutex_ ---
  bool started_ = false;
  End end_ = End::None;
  std::string history_;
  std::shared_ptr<AudioBufPlayer> handedOver_;
};

}  // namespace stress_test
