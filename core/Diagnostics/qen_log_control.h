// What a host program decides about the player's diagnostic lines: how detailed they are and where
// they go. Lines look like "2026-11-22T23:40:01.123Z [DEBUG][AudioBufPlayer_Stream.cpp:180]Stream type MP3".
//
// By default nothing is written. Every failure of the player also reaches its delegate
// (PlayerError), and the player writes an ERROR line at the end of every sentence, normal ends
// included ("Player status = 0 from AudioPropertyFoundForStream"): a client that wants the lines
// enables them for diagnosis.
#pragma once

#include <functional>
#include <string_view>

#include "audiobufplayer_export.h"

namespace QEN_TTS {

constexpr int QEN_LOG_LEVEL_OFF = 0;
constexpr int QEN_LOG_LEVEL_ERROR = 2;
constexpr int QEN_LOG_LEVEL_DEBUG = 5;
constexpr int QEN_LOG_LEVEL_TRACE = 6;

// Sets the most detailed level written: QEN_LOG_LEVEL_OFF (the default) writes nothing,
// QEN_LOG_LEVEL_TRACE everything. Any thread, at any time.
AUDIOBUFPLAYER_EXPORT void set_log_level(int level);
AUDIOBUFPLAYER_EXPORT int log_level();

// Receives each line whole, as it would be written to standard error (ending in a newline).
// It is called on whichever thread logs (client threads, the output queue's callback threads,
// work-queue threads), several at once, sometimes while the player holds its locks: it must not
// call the player and should return quickly.
using LogSink = std::function<void(std::string_view line)>;
// Sends every later line to `sink` instead of standard error; an empty sink restores standard
// error. Any thread, at any time: a line being written while the sink changes goes to the old or
// the new one, and each sink ever installed stays alive until the process ends.
AUDIOBUFPLAYER_EXPORT void set_log_sink(LogSink sink);

}  // namespace QEN_TTS
