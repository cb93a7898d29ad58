// The audio session: the process-wide count of session uses, and this player's own uses with its
// category, options and notification subscriptions.
//
// Lock order: playerStatusMutex (held by some callers), then objectLock (this player's session
// fields), then the class-wide lock of the process-wide count, which is the innermost lock.
#include "Audio/Platform/Application.h"
#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/Dispatch.h"
#include "Audio/Platform/NotificationCenter.h"
#include "Audio/Platform/PlatformException.h"
#include "Audio/Platform/SystemLog.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"

int32_t AudioBufPlayer::audioSessionUsageCount = 0;

std::recursive_mutex& AudioBufPlayer::classLock() {
  static std::recursive_mutex* const lock = new std::recursive_mutex;
  return *lock;
}

// Any thread; takes only the class-wide lock.
void AudioBufPlayer::SetAudioSessionActivationStatus(bool activate, bool isManagementEnabled) {
  std::lock_guard lock(classLock());
  try {
    if (activate) {
      ++audioSessionUsageCount;
      if (audioSessionUsageCount == 1 && isManagementEnabled) {
        dispatch_async(dispatch_get_main_queue(),
                       [] { Application::sharedApplication().beginReceivingRemoteControlEvents(); });
        AudioSession::sharedInstance().setActive(true, AVAudioSessionSetActiveOptionNotifyOthersOnDeactivation);
      }
    } else {
      --audioSessionUsageCount;
      if (audioSessionUsageCount < 0) audioSessionUsageCount = 0;
      if (audioSessionUsageCount == 0 && isManagementEnabled) {
        dispatch_async(dispatch_get_main_queue(),
                       [] { Application::sharedApplication().endReceivingRemoteControlEvents(); });
        AudioSession::sharedInstance().setActive(false, AVAudioSessionSetActiveOptionNotifyOthersOnDeactivation);
      }
    }
  } catch (const PlatformException& exception) {
    NSLog("Exception while modify audio session status: %s", exception.description());
  }
}

// Any thread; caller may hold playerStatusMutex.
void AudioBufPlayer::setOrResetAVSession(bool reset) {
  std::lock_guard lock(objectLock);
  if (reset) {
    if (audioSessionSetCount() == 0) return;
    setAudioSessionSetCount(audioSessionSetCount() - 1);
    if (audioSessionSetCount() > 0) return;
    SetAudioSessionActivationStatus(false, AVSessionManagmentEnabled());
    if (AVSessionManagmentEnabled() && isListeningInterruptions) {
      isListeningInterruptions = false;
      unsubscribeFromSessionNotifications();
    }
    return;
  }
  setAudioSessionSetCount(audioSessionSetCount() + 1);
  if (audioSessionSetCount() > 1) return;
  const std::optional<std::string> category = audioCategory();
  if (AVSessionManagmentEnabled() && category) {
    AudioSession::sharedInstance().setCategory(*category, audioCategoryOptions());
  }
  SetAudioSessionActivationStatus(true, AVSessionManagmentEnabled());
  if (AVSessionManagmentEnabled()) {
    isListeningInterruptions = true;
    subscribeToSessionNotifications();
  }
}

// Any thread.
void AudioBufPlayer::updateAVSessionManagementEnabled(bool enabled) {
  std::lock_guard lock(objectLock);
  if (enabled == AVSessionManagmentEnabled()) return;
  setAVSessionManagmentEnabled(enabled);
  if (enabled) {
    if (audioSessionSetCount() > 0) {
      if (!isListeningInterruptions) {
        isListeningInterruptions = true;
        subscribeToSessionNotifications();
      }
      const std::optional<std::string> category = audioCategory();
      if (category && !category->empty()) {
        AudioSession::sharedInstance().setCategory(*category, audioCategoryOptions());
      }
    }
  } else if (isListeningInterruptions) {
    isListeningInterruptions = false;
    unsubscribeFromSessionNotifications();
  }
}

// Any thread.
void AudioBufPlayer::updateAudioCategoryOptions(uint64_t options) {
  std::lock_guard lock(objectLock);
  if (options == audioCategoryOptions()) return;
  setAudioCategoryOptions(options);
  const std::optional<std::string> category = audioCategory();
  if (AVSessionManagmentEnabled() && audioSessionSetCount() > 0 && category && !category->empty()) {
    AudioSession::sharedInstance().setCategory(*category, audioCategoryOptions());
  }
}

// Any thread. An absent category is never equal to the current one, so it is always stored.
void AudioBufPlayer::updateAudioCategory(const std::optional<std::string>& category) {
  std::lock_guard lock(objectLock);
  if (category && category == audioCategory()) return;
  setAudioCategory(category);
  if (AVSessionManagmentEnabled() && audioSessionSetCount() > 0 && category && !category->empty()) {
    AudioSession::sharedInstance().setCategory(*category, audioCategoryOptions());
  }
}

// Caller holds objectLock. The handlers find the player through a weak reference: a player that
// is gone is never called.
void AudioBufPlayer::subscribeToSessionNotifications() {
  std::weak_ptr<AudioBufPlayer> weakSelf = weak_from_this();
  auto& center = NotificationCenter::defaultCenter();
  center.addObserver(
      weakSelf,
      [weakSelf](const Notification& notification) {
        if (auto self = weakSelf.lock()) self->audioSessionInterrupted(notification);
      },
      AVAudioSessionInterruptionNotification);
  center.addObserver(
      weakSelf,
      [weakSelf](const Notification& notification) {
        if (auto self = weakSelf.lock()) self->routeChange(notification);
      },
      AVAudioSessionRouteChangeNotification);
}

// Caller holds objectLock.
void AudioBufPlayer::unsubscribeFromSessionNotifications() {
  auto& center = NotificationCenter::defaultCenter();
  center.removeObserver(this, AVAudioSessionInterruptionNotification);
  center.removeObserver(this, AVAudioSessionRouteChangeNotification);
}
