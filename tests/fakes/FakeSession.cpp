// The audio session, the application object and the system log of the fake, as far as the player
// uses them: the real session's behaviour on the current test's state, with every call recorded.
#include <string>

#include "Audio/Platform/Application.h"
#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/Session/FormatMessage.h"
#include "Audio/Platform/SystemLog.h"
#include "fakes/FakeWorld.h"

namespace {

// Records the call; true unless a chosen result refuses it.
bool record(const char* function, const std::string& details) {
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  return world->record(function, function + details) == noErr;
}

void append(std::string line) {
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  world->append(std::move(line));
}

}  // namespace

AudioSession& AudioSession::sharedInstance() {
  static AudioSession* const session = new AudioSession;
  return *session;
}

bool AudioSession::setCategory(const std::string& category, uint64_t options) {
  return record("setCategory", " " + category + " options=" + std::to_string(options)) &&
         fake::world()->session.setCategory(category, options);
}

bool AudioSession::setActive(bool active, uint64_t options) {
  return record("setActive", " " + std::to_string(int(active)) + " options=" + std::to_string(options)) &&
         fake::world()->session.setActive(active);
}

bool AudioSession::isInterrupted() const { return fake::world()->session.isInterrupted(); }

Application& Application::sharedApplication() {
  static Application* const application = new Application;
  return *application;
}

void Application::beginReceivingRemoteControlEvents() { append("beginReceivingRemoteControlEvents"); }
void Application::endReceivingRemoteControlEvents() { append("endReceivingRemoteControlEvents"); }
void Application::setInBackground(bool inBackground) { fake::world()->inBackground.store(inBackground); }
bool Application::isInBackground() const { return fake::world()->inBackground.load(); }

void NSLog(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string message = formatMessage(format, arguments);
  va_end(arguments);
  append("NSLog " + message);
}
