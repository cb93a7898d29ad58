// A process-wide notification centre: observers subscribe to a name and are called, on the thread
// that posts, for every notification of that name.
//
// An observer is held weakly: once it is destroyed it is never called. Removal takes effect at once:
// a post under way on another thread that has not yet begun calling the observer skips it. Removal
// never waits for a call already running, so it may be done from inside a handler or under a lock
// that the handler also takes.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

struct Notification {
  std::string name;
  // The user-info dictionary, absent when the poster gave none.
  std::optional<std::map<std::string, int64_t>> userInfo;
};

class NotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;

  static NotificationCenter& defaultCenter();

  // Subscribes observer to name. A second subscription of the same observer to the same name
  // replaces the first.
  void addObserver(const std::weak_ptr<void>& observer, Handler handler, const std::string& name);
  void removeObserver(const void* observer, const std::string& name);
  // Calls every live observer of notification.name on this thread, in subscription order.
  void postNotification(const Notification& notification);

  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

 private:
  NotificationCenter();
  struct State;
  std::shared_ptr<State> state_;
};
