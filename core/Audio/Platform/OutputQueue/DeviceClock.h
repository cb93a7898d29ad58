// The process's one clock thread and the clocked outputs it drives (ClockedDevice.h). Each wake-up
// it gives a period to every started output that is due, so that outputs do not each need a
// thread. An output's period runs outside the clock's mutex; remove() waits until the clock is not
// in that output's period, and the clock never keeps an output across a period of another.
#pragma once

#include <condition_variable>
#include <mutex>
#include <vector>

class ClockedDevice;

class DeviceClock {
 public:
  // Never destroyed: its thread may still wait while the process exits. The first call starts the
  // thread and may throw std::system_error.
  static DeviceClock& instance();

  // Any thread but the clock's: the output's periods begin, the first at once.
  void add(ClockedDevice& device);
  // Any thread but the clock's: once it returns, the output gets no period and is in none.
  void remove(ClockedDevice& device);

 private:
  DeviceClock();
  void run();

  std::mutex mutex_;
  std::condition_variable changed_;   // an output was added
  std::condition_variable tickDone_;  // busy_ went back to null
  // --- guarded by mutex_ ---
  std::vector<ClockedDevice*> devices_;
  ClockedDevice* busy_ = nullptr;  // the output whose period the clock thread is in
};
