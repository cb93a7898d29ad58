// Subscriptions are kept in a list guarded by one mutex that is never held while a handler runs:
// a post copies the matching subscriptions, then calls each one that is still subscribed.
#include "Audio/Platform/NotificationCenter.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

namespace {

struct Subscription {
  std::weak_ptr<void> observer;
  const void* observerKey;
  std::string name;
  NotificationCenter::Handler handler;
  std::atomic<bool> subscribed{true};
};

}  // namespace

struct NotificationCenter::State {
  std::mutex mutex;
  std::vector<std::shared_ptr<Subscription>> subscriptions;  // guarded by mutex

  // Caller holds mutex. Subscriptions of observers that are gone go too, so that observers that
  // never unsubscribe cannot make the list grow.
  void unsubscribe(const void* observer, const std::string& name) {
    auto matches = [&](const std::shared_ptr<Subscription>& s) {
      return (s->observerKey == observer && s->name == name) || s->observer.expired();
    };
    for (auto& subscription : subscriptions) {
      if (matches(subscription)) subscription->subscribed.store(false, std::memory_order_release);
    }
    subscriptions.erase(std::remove_if(subscriptions.begin(), subscriptions.end(), matches), subscriptions.end());
  }
};

NotificationCenter::NotificationCenter() : state_(std::make_shared<State>()) {}

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter* const center = new NotificationCenter;
  return *center;
}

void NotificationCenter::addObserver(const std::weak_ptr<void>& observer, Handler handler, const std::string& name) {
  auto subscription = std::make_shared<Subscription>();
  subscription->observer = observer;
  subscription->observerKey = observer.lock().get();
  subscription->name = name;
  subscription->handler = std::move(handler);
  std::lock_guard lock(state_->mutex);
  state_->unsubscribe(subscription->observerKey, name);
  state_->subscriptions.push_back(std::move(subscription));
}

void NotificationCenter::removeObserver(const void* observer, const std::string& name) {
  std::lock_guard lock(state_->mutex);
  state_->unsubscribe(observer, name);
}

void NotificationCenter::postNotification(const Notification& notification) {
  std::vector<std::shared_ptr<Subscription>> receivers;
  {
    std::lock_guard lock(state_->mutex);
    for (const auto& subscription : state_->subscriptions) {
      if (subscription->name == notification.name) receivers.push_back(subscription);
    }
  }
  for (const auto& subscription : receivers) {
    std::shared_ptr<void> observer = subscription->observer.lock();
    if (!observer || !subscription->subscribed.load(std::memory_order_acquire)) continue;
    subscription->handler(notification);
  }
}
