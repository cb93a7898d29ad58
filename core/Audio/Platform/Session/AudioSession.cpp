// The process's audio session. On Linux nothing outside the process takes the audio away, so the
// session only keeps what it was told and lets the host program (or bufplay) play the platform's
// part: interruptions and route changes.
#include "Audio/Platform/AudioSession.h"

#include "Audio/Platform/Session/SessionState.h"

namespace {
// Never destroyed: notification tasks and callback threads may still use it while the process exits.
SessionState& state() {
  static SessionState* const session = new SessionState;
  return *session;
}
}  // namespace

AudioSession& AudioSession::sharedInstance() {
  static AudioSession* const session = new AudioSession;
  return *session;
}

bool AudioSession::setCategory(const std::string& category, uint64_t options) {
  return state().setCategory(category, options);
}
bool AudioSession::setActive(bool active, uint64_t) { return state().setActive(active); }

std::optional<std::string> AudioSession::category() const { return state().category(); }
uint64_t AudioSession::categoryOptions() const { return state().categoryOptions(); }
bool AudioSession::isActive() const { return state().isActive(); }
bool AudioSession::isInterrupted() const { return state().isInterrupted(); }

void AudioSession::beginInterruption() { state().beginInterruption(); }
void AudioSession::endInterruption() { state().endInterruption(); }
void AudioSession::changeRoute() { state().changeRoute(); }
void AudioSession::postInterruption(std::optional<int64_t> type) { state().postInterruption(type); }
