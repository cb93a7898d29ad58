// The audio session, the application object and the system log of the fake: the real session's
// behaviour on the current test's state, with every call of the player recorded.
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

std::optional<std::string> AudioSession::category() const { return fake::world()->session.category(); }
uint64_t AudioSession::categoryOptions() const { return fake::world()->session.categoryOptions(); }
bool AudioSession::isActive() const { return fake::world()->session.isActive(); }
bool AudioSession::isInterrupted() const { return fake::world()->session.isInterrupted(); }

void AudioSession::beginInterruption() { fake::world()->session.beginInterruption(); }
void AudioSession::endInterruption() { fake::world()->session.endInterruption(); }
void AudioSession::changeRoute() { fake::world()->session.changeRoute(); }
void AudioSession::postInterruption(std::optional<int64_t> type) { fake::world()->session.postInterruption(type); }

Application& Application::sharedApplication() {
  static Application* const application = new Application;
  return *application;
}

void Application::beginReceivingRemoteControlEvents() {
  const auto world = fake::world();
  world->log.append("beginReceivingRemoteControlEvents");
  world->receivingRemoteControlEvents.store(true);
}

void Application::endReceivingRemoteControlEvents() {
  const auto world = fake::world();
  world->log.append("endReceivingRemoteControlEvents");
  world->receivingRemoteControlEvents.store(false);
}

bool Application::isReceivingRemoteControlEvents() const { return fake::world()->receivingRemoteControlEvents.load(); }
void Application::setInBackground(bool inBackground) { fake::world()->inBackground.store(inBackground); }
bool Application::isInBackground() const { return fake::world()->inBackground.load(); }

void NSLog(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string message = formatMessage(format, arguments);
  va_end(arguments);
  fake::world()->log.append("NSLog " + message);
}
