// One step of --at SECONDS:ACTION: what the session does to the player or to the audio session at
// a moment counted from the first playData.
#pragma once

#include <string>
#include <vector>

struct ScriptedAction {
  enum Kind {
    Pause,
    Resume,
    Stop,
    Start,
    Volume,
    InterruptBegin,
    InterruptEnd,
    RouteChange,
    Background,
    Foreground,
  };
  double at = 0;  // seconds since the first playData
  Kind kind = Pause;
  float volume = 0;  // for Volume
};

// Reads "SECONDS:ACTION", e.g. "0.5:pause" or "2:volume=0.3". Throws BadInput naming the problem.
ScriptedAction ParseScriptedAction(const std::string& text);
// The names that ParseScriptedAction accepts, for the help text.
std::string ScriptedActionNames();
