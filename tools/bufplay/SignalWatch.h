// Termination and job-control signals taken as events through a descriptor that the main loop
// polls, so that bufplay stops the player and restores the terminal before it ends, whatever
// thread the signal was aimed at.
#pragma once

class SignalWatch {
 public:
  // Blocks the signals in the calling thread and in every thread it starts later: construct it
  // first thing in main, before any thread exists.
  SignalWatch();
  ~SignalWatch();
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;

  int fd() const { return fd_; }
  // The signal that arrived, 0 when none is pending.
  int take();
  // Stops the process as the terminal's Ctrl-Z would have; returns once it is continued.
  static void suspendSelf();

 private:
  const int fd_;
};
