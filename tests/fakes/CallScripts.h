// Chosen results: which calls of which function fail with a chosen status or raise.
#pragma once

#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "Audio/Platform/PlatformTypes.h"

namespace fake {

// How one platform call ends.
struct Outcome {
  OSStatus status = noErr;
  std::exception_ptr exception;

  // Raises the chosen exception, if any; else tells whether the call goes ahead.
  bool proceeds() const;
};

// Not synchronised: the owner guards it.
class CallScripts {
 public:
  // Whether function can be scripted.
  static bool knows(std::string_view function);
  // The nth call from now (1: the next) ends with outcome; with repeat, every call from the nth on.
  void add(std::string_view function, int nth, bool repeat, Outcome outcome);
  // Counts one call of function and returns what was chosen for it (a plain success when nothing).
  Outcome next(std::string_view function);

 private:
  struct Script {
    std::string function;
    int callsToSkip;
    bool repeat;
    Outcome outcome;
  };
  std::vector<Script> scripts_;
};

}  // namespace fake
