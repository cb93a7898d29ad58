// The process's one audio session, and what a host program can do to it.
//
// setCategory and setActive are what a player uses. The host side (interruptions, route changes)
// posts the session notifications from the session's own thread, never synchronously inside the
// caller's call, so a player may trigger them while holding its own locks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

extern const char* const AVAudioSessionInterruptionNotification;
extern const char* const AVAudioSessionRouteChangeNotification;
extern const char* const AVAudioSessionInterruptionTypeKey;
constexpr int64_t AVAudioSessionInterruptionTypeEnded = 0;
constexpr int64_t AVAudioSessionInterruptionTypeBegan = 1;
constexpr uint64_t AVAudioSessionSetActiveOptionNotifyOthersOnDeactivation = 1;

class AudioSession {
 public:
  static AudioSession& sharedInstance();

  // May raise PlatformException. The result tells whether the session took the change.
  bool setCategory(const std::string& category, uint64_t options);
  bool setActive(bool active, uint64_t options);

  std::optional<std::string> category() const;
  uint64_t categoryOptions() const;
  bool isActive() const;
  // While interrupted, every output queue start is refused with "!int".
  bool isInterrupted() const;

  // Host side. Each posts AVAudioSessionInterruptionNotification (type Began / Ended under
  // AVAudioSessionInterruptionTypeKey) or AVAudioSessionRouteChangeNotification from the session's
  // thread and returns at once.
  void beginInterruption();
  void endInterruption();
  void changeRoute();
  // Posts an interruption notification with any user info (or none), as a platform may.
  void postInterruption(std::optional<int64_t> type);

  AudioSession(const AudioSession&) = delete;
  AudioSession& operator=(const AudioSession&) = delete;

 private:
  AudioSession() = default;
};
