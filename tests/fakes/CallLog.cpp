#include "fakes/CallLog.h"

namespace fake {

void CallLog::append(std::string line) {
  std::lock_guard lock(mutex_);
  lines_.push_back(std::move(line));
  appended_.notify_all();
}

std::vector<std::string> CallLog::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

void CallLog::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

bool CallLog::waitUntil(const std::function<bool(const std::vector<std::string>& lines)>& satisfied,
                        std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return appended_.wait_for(lock, timeout, [&] { return satisfied(lines_); });
}

}  // namespace fake
