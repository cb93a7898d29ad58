#include "SessionEvent.h"

const char* DelegateOperationName(SessionEvent::Kind kind) {
  switch (kind) {
    case SessionEvent::WillStart:
      return "playerWillStartPlayback";
    case SessionEvent::TotalLength:
      return "updatedTotalLength";
    case SessionEvent::Progress:
      return "playProgressChanged";
    case SessionEvent::AboutToEnd:
      return "aboutToEnd";
    case SessionEvent::Finished:
      return "PlaybackFinished";
    case SessionEvent::Error:
      return "PlayerError";
    case SessionEvent::Paused:
      return "PlayerWasPaused";
    case SessionEvent::Resumed:
      return "PlayerWasResumed";
    case SessionEvent::FeedEnded:
      break;
  }
  return nullptr;
}

const char* PauseSourceName(AudioBufPlayerPauseSource source) {
  switch (source) {
    case AudioBufPlayerPauseSource_USER:
      return "user";
    case AudioBufPlayerPauseSource_INTERRUPT:
      return "interrupt";
    case AudioBufPlayerPauseSource_BACKGROUND:
      return "background";
  }
  return "unknown";
}
