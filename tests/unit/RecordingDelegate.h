// A delegate that records every call it receives, from whatever thread, and lets a test wait for
// them. Waits fail the test after a generous deadline instead of hanging.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"

struct DelegateEvent {
  std::string name;  // the delegate operation: "PlaybackFinished", "playProgressChanged", ...
  double seconds = 0.0;  // updatedTotalLength, playProgressChanged
  AudioBufPlayerError error = AudioBufPlayerError_OK;
  AudioBufPlayerPauseSource source = AudioBufPlayerPauseSource_USER;
  std::string description{};
  AudioBufPlayer* player = nullptr;
  std::thread::id thread{};
};

class RecordingDelegate : public AudioBufPlayerDelegate {
 public:
  static constexpr std::chrono::seconds kWaitTimeout{30};

  void playerWillStartPlayback(AudioBufPlayer* player) override { record({"playerWillStartPlayback"}, player); }
  void updatedTotalLength(double length, AudioBufPlayer* player) override {
    record({"updatedTotalLength", length}, player);
  }
  void playProgressChanged(double position, AudioBufPlayer* player) override {
    record({"playProgressChanged", position}, player);
  }
  void aboutToEnd(AudioBufPlayer* player) override { record({"aboutToEnd"}, player); }
  void PlaybackFinished(AudioBufPlayer* player) override { record({"PlaybackFinished"}, player); }
  void PlayerError(AudioBufPlayerError error, AudioBufPlayer* player, const std::string& description) override {
    record({.name = "PlayerError", .error = error, .description = description}, player);
  }
  void PlayerWasPaused(AudioBufPlayerPauseSource source, AudioBufPlayer* player) override {
    record({.name = "PlayerWasPaused", .source = source}, player);
  }
  void PlayerWasResumed(AudioBufPlayer* player) override { record({"PlayerWasResumed"}, player); }

  std::vector<DelegateEvent> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  // The names of the events, in arrival order.
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const auto& event : events()) result.push_back(event.name);
    return result;
  }
  size_t count(const std::string& name) const {
    std::lock_guard lock(mutex_);
    return countLocked(name);
  }
  // Waits until at least count events of that name have arrived.
  [[nodiscard]] bool waitFor(const std::string& name, size_t count = 1) {
    std::unique_lock lock(mutex_);
    const bool arrived = changed_.wait_for(lock, kWaitTimeout, [&] { return countLocked(name) >= count; });
    if (!arrived) ADD_FAILURE() << "timed out waiting for " << count << " x " << name;
    return arrived;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    events_.clear();
  }

 private:
  void record(DelegateEvent event, AudioBufPlayer* player) {
    event.player = player;
    event.thread = std::this_thread::get_id();
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
    changed_.notify_all();
  }

  // Caller holds mutex_.
  size_t countLocked(const std::string& name) const {
    return size_t(std::count_if(events_.begin(), events_.end(), [&](const auto& event) { return event.name == name; }));
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<DelegateEvent> events_;  // guarded by mutex_
};
