// The audio session, the application object and the system log of the fake, as far as the player
// uses them: the real session's behaviour on the current test's state, with every call recorded.
#include <string>

#include "Audio/Platform/Application.h"
#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/Session/FormatMessage.h"
#include "Audio/Platform/SystemLog.h"
#include "fakes/FakeWorld.h"

AudioSession& AudioSession::sharedInstance() {
  static AudioSession* const session = new AudioSession;
  return *session;
}

bool AudioSession::setCategory(const std::string& category, uint64_t options) {
  const auto world = fake::world();
  const fake::Outcome outcome =
      world->record("setCategory", "setCategory " + category + " options=" + std::to_string(options));
  return outcome.proceeds() && world->session.setCategory(category, options);
}

bool AudioSession::setActive(bool active, uint64_t options) {
  const auto world = fake::world();
  const fake::Outcome outcome =
      world->record("setActive", "setActive " + std::to_string(int(active)) + " options=" + std::to_string(options));
  return outcome.proceeds() && world->session.setActive(active);
}

bool AudioSession::isInterrupted() const { return fake::world()->session.isInterrupted(); }

Application& Application::sharedApplication() {
  static Application* const application = new Application;
  return *application;
}

void Application::beginReceivingRemoteControlEvents() { fake::world()->log.append("beginReceivingRemoteControlEvents"); }
void Application::endReceivingRemoteControlEvents() { fake::world()->log.append("endReceivingRemoteControlEvents"); }
void Application::setInBackground(bool inBackground) { fake::world()->inBackground.store(inBackground); }

void NSLog(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string message = formatMessage(format, arguments);
  va_end(arguments);
  fake::world()->log.append("NSLog " + message);
}
