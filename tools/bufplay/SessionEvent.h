// What the main loop learns while a session runs: each delegate call of the player, and the
// producer's report that it is done with a sentence.
#pragma once

#include <cstdint>
#include <string>

#include "Audio/Players/Impl_iOS/AudioBufPlayerDelegate.h"

// How the producer's work on a sentence ended.
enum class FeedOutcome {
  Whole,          // every chunk was taken
  RunOutRefused,  // the sentence reached its run-out point before the rest arrived
  Stopped,        // the player was stopped, or the session abandoned the sentence
  FailedAtStart,  // playData refused the first chunk; the request was reset by the player
  FailedLater,    // appendAudioData failed; the request is still under way
};

struct SessionEvent {
  enum Kind {
    // Delegate calls, named in --events by their operation.
    WillStart,
    TotalLength,
    Progress,
    AboutToEnd,
    Finished,
    Error,
    Paused,
    Resumed,
    // The producer is done with the sentence.
    FeedEnded,
  };
  double t = 0;  // seconds since the first playData
  int sentence = 0;  // from 1
  Kind kind = WillStart;
  double seconds = 0;  // TotalLength and Progress: the reported value; FeedEnded: audio refused
  AudioBufPlayerError error = AudioBufPlayerError_OK;  // Error; FeedEnded: the refusing call's result
  std::string description;  // Error
  AudioBufPlayerPauseSource source = AudioBufPlayerPauseSource_USER;  // Paused
  FeedOutcome outcome = FeedOutcome::Whole;  // FeedEnded
};

// The delegate operation's first keyword, as --events names it; null for FeedEnded.
const char* DelegateOperationName(SessionEvent::Kind kind);
// "user", "interrupt" or "background".
const char* PauseSourceName(AudioBufPlayerPauseSource source);
