// The application object. Remote-control events have no source on Linux; the registration is kept
// so that a host program can show it. The background state is set by the host program.
#include "Audio/Platform/Application.h"

#include <atomic>

namespace {
std::atomic<bool> receivingRemoteControlEvents{false};
std::atomic<bool> inBackground{false};
}  // namespace

Application& Application::sharedApplication() {
  static Application* const application = new Application;
  return *application;
}

void Application::beginReceivingRemoteControlEvents() { receivingRemoteControlEvents.store(true); }
void Application::endReceivingRemoteControlEvents() { receivingRemoteControlEvents.store(false); }
bool Application::isReceivingRemoteControlEvents() const { return receivingRemoteControlEvents.load(); }

void Application::setInBackground(bool background) { inBackground.store(background); }
bool Application::isInBackground() const { return inBackground.load(); }
