// The fake's call log: lines appended by the platform calls, read and awaited by the test.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace fake {

class CallLog {
 public:
  // Any thread.
  void append(std::string line);
  std::vector<std::string> lines() const;
  void clear();
  // Waits until satisfied(lines) holds, re-testing after every append; false when timeout passes.
  bool waitUntil(const std::function<bool(const std::vector<std::string>& lines)>& satisfied,
                 std::chrono::milliseconds timeout) const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable appended_;
  std::vector<std::string> lines_;  // guarded by mutex_
};

}  // namespace fake
