// What a player tells its client.
//
// Threads. A delegate must accept calls from several threads at once:
// - playerWillStartPlayback, updatedTotalLength and the PlaybackFinished of an empty first chunk
//   come at once on the thread that called playData / appendAudioData, while the player holds its
//   status mutex: from inside them, call no operation of the player (a transport or request call
//   made there on the same thread is refused with an ERROR line and has no effect).
// - playProgressChanged and aboutToEnd come at once inside the output queue's buffer callback: on a
//   thread of the global work queue, one callback of that queue at a time and in order, outside
//   every lock of the player. Blocking there delays the next reports, not the sound.
// - PlaybackFinished (after the queue played everything), PlayerError, PlayerWasPaused and
//   PlayerWasResumed come from tasks on the global work queue, in no particular order. The delegate
//   set when such a report was posted receives it, and is kept alive until it has.
#pragma once

#include <cstdint>
#include <string>

#include "audiobufplayer_export.h"

class AudioBufPlayer;

enum AudioBufPlayerError : int32_t {
  AudioBufPlayerError_OK = 0,
  AudioBufPlayerError_SWITCH_FORMAT = 1,                 // returned: other format, or appended after the run-out point
  AudioBufPlayerError_UNSUPPORTED_FORMAT = 2,            // returned: not PCM 8 kHz, PCM 16 kHz or MP3
  AudioBufPlayerError_FAILED_GET_STREAM_PROPERTIES = 3,  // reported: the MP3 format could not be read
  AudioBufPlayerError_FAILED_INIT_STREAM = 4,            // returned: the MP3 parser could not be opened
  AudioBufPlayerError_FAILED_PARSE_STREAM = 5,           // returned and reported: the bytes are no MP3
  AudioBufPlayerError_FAILED_OPEN_DEVICE = 6,            // reported: the output queue could not be opened
  AudioBufPlayerError_START_PLAYBACK_FAILED = 7,         // reported: the output queue did not start
  AudioBufPlayerError_ALLOC_FAIL = 8,                    // reported: a queue buffer could not be allocated
  AudioBufPlayerError_QUEUE_FAIL = 9,                    // reported: a buffer could not be enqueued
  AudioBufPlayerError_STOPPED = 10,                      // returned: the player is stopped; call start
};

enum AudioBufPlayerPauseSource : int32_t {
  AudioBufPlayerPauseSource_USER = 0,        // the client called pause
  AudioBufPlayerPauseSource_INTERRUPT = 1,   // the audio session was interrupted
  AudioBufPlayerPauseSource_BACKGROUND = 2,  // the application is in the background
};

class AUDIOBUFPLAYER_EXPORT AudioBufPlayerDelegate {
 public:
  virtual ~AudioBufPlayerDelegate() = default;

  // A sentence of a played format is starting; sent before its stream is opened.
  virtual void playerWillStartPlayback(AudioBufPlayer* player) = 0;
  // Seconds of the sentence received so far, plus the request's offset.
  virtual void updatedTotalLength(double length, AudioBufPlayer* player) = 0;
  // Seconds of the sentence played so far, plus the request's offset.
  virtual void playProgressChanged(double position, AudioBufPlayer* player) = 0;
  // Playback came within 0.25 s of the received audio; appended audio is refused from now on.
  // Sent again with every later progress report of the sentence.
  virtual void aboutToEnd(AudioBufPlayer* player) = 0;
  // The sentence ended: everything was played, it was started with an empty chunk, or no queue
  // buffer was left to play it (after the ALLOC_FAIL or QUEUE_FAIL that said why). Sent once.
  virtual void PlaybackFinished(AudioBufPlayer* player) = 0;
  // A failure. FAILED_GET_STREAM_PROPERTIES and FAILED_OPEN_DEVICE end the sentence, and so does
  // FAILED_PARSE_STREAM when playData returned it, or appendAudioData before any updatedTotalLength
  // of the sentence: no PlaybackFinished follows. After the others the sentence goes on to its
  // PlaybackFinished.
  virtual void PlayerError(AudioBufPlayerError error, AudioBufPlayer* player, const std::string& description) = 0;
  virtual void PlayerWasPaused(AudioBufPlayerPauseSource source, AudioBufPlayer* player) = 0;
  virtual void PlayerWasResumed(AudioBufPlayer* player) = 0;
};
