#include "ScriptedAction.h"

#include <array>
#include <charconv>
#include <cmath>
#include <utility>

#include "BadInput.h"

namespace {

constexpr std::array<std::pair<const char*, ScriptedAction::Kind>, 10> kNames{{
    {"pause", ScriptedAction::Pause},
    {"resume", ScriptedAction::Resume},
    {"stop", ScriptedAction::Stop},
    {"start", ScriptedAction::Start},
    {"volume=V", ScriptedAction::Volume},
    {"interrupt-begin", ScriptedAction::InterruptBegin},
    {"interrupt-end", ScriptedAction::InterruptEnd},
    {"route-change", ScriptedAction::RouteChange},
    {"background", ScriptedAction::Background},
    {"foreground", ScriptedAction::Foreground},
}};

// A whole decimal number and nothing else; std::stod would accept "1x" and " 1".
bool ParseNumber(const std::string& text, double& value) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && stop == end && std::isfinite(value);
}

}  // namespace

ScriptedAction ParseScriptedAction(const std::string& text) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) {
    throw BadInput("--at " + text + ": expected SECONDS:ACTION, e.g. 0.5:pause");
  }
  ScriptedAction action;
  if (!ParseNumber(text.substr(0, colon), action.at) || action.at < 0) {
    throw BadInput("--at " + text + ": " + text.substr(0, colon) + " is not a number of seconds >= 0");
  }
  const std::string name = text.substr(colon + 1);
  const std::string volumePrefix = "volume=";
  if (name.rfind(volumePrefix, 0) == 0) {
    double volume = 0;
    if (!ParseNumber(name.substr(volumePrefix.size()), volume) || volume < 0 || volume > 1) {
      throw BadInput("--at " + text + ": the volume must be a number from 0 to 1");
    }
    action.kind = ScriptedAction::Volume;
    action.volume = float(volume);
    return action;
  }
  for (const auto& [known, kind] : kNames) {
    if (name == known && kind != ScriptedAction::Volume) {
      action.kind = kind;
      return action;
    }
  }
  throw BadInput("--at " + text + ": unknown action '" + name + "' (known: " + ScriptedActionNames() + ")");
}

std::string ScriptedActionNames() {
  std::string names;
  for (const auto& [name, kind] : kNames) {
    names += (names.empty() ? "" : ", ") + std::string(name);
  }
  return names;
}
