#include "fakes/CallScripts.h"

#include <algorithm>
#include <array>
#include <optional>

namespace fake {

bool Outcome::proceeds() const {
  if (exception) std::rethrow_exception(exception);
  return status == noErr;
}

bool CallScripts::knows(std::string_view function) {
  static constexpr std::array<std::string_view, 17> kScriptable = {"AudioQueueNewOutput",
                                                                   "AudioQueueAllocateBuffer",
                                                                   "AudioQueueEnqueueBuffer",
                                                                   "AudioQueueStart",
                                                                   "AudioQueuePause",
                                                                   "AudioQueueStop",
                                                                   "AudioQueueDispose",
                                                                   "AudioQueueGetCurrentTime",
                                                                   "AudioQueueGetProperty",
                                                                   "AudioQueueAddPropertyListener",
                                                                   "AudioQueueSetParameter",
                                                                   "AudioFileStreamOpen",
                                                                   "AudioFileStreamParseBytes",
                                                                   "AudioFileStreamGetProperty",
                                                                   "AudioFileStreamClose",
                                                                   "setCategory",
                                                                   "setActive"};
  return std::find(kScriptable.begin(), kScriptable.end(), function) != kScriptable.end();
}

void CallScripts::add(std::string_view function, int nth, bool repeat, Outcome outcome) {
  scripts_.push_back(Script{std::string(function), std::max(nth, 1) - 1, repeat, std::move(outcome)});
}

Outcome CallScripts::next(std::string_view function) {
  // Every script of the function counts the call; the first one that is due decides it.
  std::optional<Outcome> chosen;
  for (auto script = scripts_.begin(); script != scripts_.end();) {
    if (script->function != function) {
      ++script;
    } else if (script->callsToSkip > 0) {
      --script->callsToSkip;
      ++script;
    } else if (chosen) {
      ++script;
    } else {
      chosen = script->outcome;
      script = script->repeat ? script + 1 : scripts_.erase(script);
    }
  }
  return chosen.value_or(Outcome{});
}

}  // namespace fake
