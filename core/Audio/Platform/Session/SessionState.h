// What the audio session holds and what its host side does, apart from how a process reaches it:
// the real AudioSession keeps one for the process, the test fake one per test.
//
// Everything is guarded by one mutex. A state change and the post of its notification are made
// under that mutex, so the notifications go out in the order of the changes; they are delivered
// through NotificationCenter::defaultCenter() from the session's serial queue, never inside the
// caller's call, so a caller may hold locks that the handlers take.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "Audio/Platform/Session/SerialTaskQueue.h"

struct Notification;

class SessionState {
 public:
  // Any thread. An empty category names none: it is refused (false) and changes nothing.
  bool setCategory(const std::string& category, uint64_t options);
  // Any thread. Always taken.
  bool setActive(bool active);

  std::optional<std::string> category() const;
  uint64_t categoryOptions() const;
  bool isActive() const;
  bool isInterrupted() const;

  // Any thread; each returns before its notification is delivered. The interrupted state changes
  // at the call, so a queue start right after beginInterruption() is refused.
  void beginInterruption();
  void endInterruption();
  void changeRoute();
  // No state change: posts an interruption notification with type under
  // AVAudioSessionInterruptionTypeKey, or without user info when type is absent.
  void postInterruption(std::optional<int64_t> type);

  // Runs task on the session's serial queue once every notification posted before this call has
  // been delivered to every handler.
  void afterPostedNotifications(std::function<void()> task);

 private:
  // Caller holds mutex_.
  void post(Notification notification);
  void postInterruptionType(std::optional<int64_t> type);

  mutable std::mutex mutex_;
  // --- guarded by mutex_ ---
  std::optional<std::string> category_;
  uint64_t categoryOptions_ = 0;
  bool active_ = false;
  bool interrupted_ = false;
  SerialTaskQueue notifications_;
};
