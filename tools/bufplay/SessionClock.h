// Seconds since the session began, readable from any thread.
#pragma once

#include <chrono>

class SessionClock {
 public:
  using Clock = std::chrono::steady_clock;

  SessionClock() : start_(Clock::now()) {}
  double now() const { return toSeconds(Clock::now()); }
  double toSeconds(Clock::time_point time) const { return std::chrono::duration<double>(time - start_).count(); }
  Clock::time_point at(double seconds) const {
    return start_ + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  }

 private:
  const Clock::time_point start_;
};
