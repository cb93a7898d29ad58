#include "Audio/Platform/Session/SessionState.h"

#include <map>

#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/NotificationCenter.h"

bool SessionState::setCategory(const std::string& category, uint64_t options) {
  if (category.empty()) return false;
  std::lock_guard lock(mutex_);
  category_ = category;
  categoryOptions_ = options;
  return true;
}

bool SessionState::setActive(bool active) {
  std::lock_guard lock(mutex_);
  active_ = active;
  return true;
}

std::optional<std::string> SessionState::category() const {
  std::lock_guard lock(mutex_);
  return category_;
}

uint64_t SessionState::categoryOptions() const {
  std::lock_guard lock(mutex_);
  return categoryOptions_;
}

bool SessionState::isActive() const {
  std::lock_guard lock(mutex_);
  return active_;
}

bool SessionState::isInterrupted() const {
  std::lock_guard lock(mutex_);
  return interrupted_;
}

void SessionState::beginInterruption() {
  std::lock_guard lock(mutex_);
  interrupted_ = true;
  postInterruptionType(AVAudioSessionInterruptionTypeBegan);
}

void SessionState::endInterruption() {
  std::lock_guard lock(mutex_);
  interrupted_ = false;
  postInterruptionType(AVAudioSessionInterruptionTypeEnded);
}

void SessionState::changeRoute() {
  std::lock_guard lock(mutex_);
  post(Notification{AVAudioSessionRouteChangeNotification, std::nullopt});
}

void SessionState::postInterruption(std::optional<int64_t> type) {
  std::lock_guard lock(mutex_);
  postInterruptionType(type);
}

void SessionState::afterPostedNotifications(std::function<void()> task) {
  std::lock_guard lock(mutex_);
  notifications_.post(std::move(task));
}

void SessionState::postInterruptionType(std::optional<int64_t> type) {
  Notification notification{AVAudioSessionInterruptionNotification, std::nullopt};
  if (type) notification.userInfo = std::map<std::string, int64_t>{{AVAudioSessionInterruptionTypeKey, *type}};
  post(std::move(notification));
}

void SessionState::post(Notification notification) {
  notifications_.post(
      [notification = std::move(notification)] { NotificationCenter::defaultCenter().postNotification(notification); });
}
