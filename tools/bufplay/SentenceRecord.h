// What the session knows about one sentence, gathered on the main loop from its events; the live
// display, the summary and the end-of-session checks read it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Audio/Players/Impl_iOS/AudioBufPlayerDelegate.h"
#include "SentenceSource.h"

struct SentenceRecord {
  enum class End {
    NotYet,
    Finished,        // PlaybackFinished after the player played it
    EndedByBufplay,  // bufplay ended it with an empty playData (no sound, or a broken stream)
    Stopped,         // stop, q or a signal
    Failed,          // the first chunk was refused
  };

  SentenceRecord(SentenceSource& source, int number) : source(&source), number(number) {}

  SentenceSource* source;
  int number;  // from 1

  double startedAt = -1;  // t of the first playData
  double received = 0;  // seconds, without the offset
  double played = 0;
  double lastSoundAt = -1;  // t of the last progress report
  bool ending = false;  // aboutToEnd arrived
  int pauses = 0;  // PlayerWasPaused reports, any source
  // An interruption or the background holds the sentence until the player reports it resumed.
  std::optional<AudioBufPlayerPauseSource> systemHold;
  std::optional<double> fedAt;  // t when the producer was done with it
  double refusedSeconds = 0;  // audio the player refused after the run-out point
  // Seconds from the first playData to the first frame heard, worked out from the first progress
  // report: the time it came less the audio it says was played by then.
  std::optional<double> firstAudioAfter;
  bool heldBeforeSound = false;  // paused or interrupted before the first progress report
  uint64_t underruns = 0;  // times its output queue ran dry, as last read at a progress report
  bool errorExpected = false;  // a refused chunk whose PlayerError report is still on its way
  bool errorReported = false;  // a PlayerError arrived
  End end = End::NotYet;
};

// "finished", "ended by bufplay", "stopped", "failed"; empty while under way.
inline const char* EndStateName(SentenceRecord::End end) {
  switch (end) {
    case SentenceRecord::End::NotYet:
      break;
    case SentenceRecord::End::Finished:
      return "finished";
    case SentenceRecord::End::EndedByBufplay:
      return "ended by bufplay";
    case SentenceRecord::End::Stopped:
      return "stopped";
    case SentenceRecord::End::Failed:
      return "failed";
  }
  return "";
}
