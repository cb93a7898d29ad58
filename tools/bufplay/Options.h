// What the command line asks of bufplay.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "Audio/Players/qen_AudioPlayer.h"
#include "ScriptedAction.h"

struct Options {
  std::vector<std::string> files;  // one sentence each, played in order; "-" is standard input
  std::optional<QEN_TTS::Audio::AudioPlayerAudioFormats> format;  // absent: from each file's name or first bytes
  std::optional<uint32_t> rate;  // raw PCM of this rate, converted for the player
  size_t chunkBytes = 3200;
  double pace = 4;  // producer speed against playback; 0: as fast as the player takes it
  // Audio held before the first playData of a sentence. Half a second keeps a producer that
  // delivers in real time clear of the player's run-out point (0.25 s) with room for its chunks
  // to come late, and delays the first sound of such a producer by no more.
  double lead = 0.5;
  std::string output = "default";
  std::optional<std::string> device;  // a PortAudio output by name, for --output default
  double speed = 1;  // clock factor of the null and wav outputs
  float volume = 1;
  double offset = 0;  // added by the player to every reported length and position
  std::optional<std::string> category;
  bool sessionManagement = true;
  std::vector<ScriptedAction> script;  // sorted by time
  std::optional<std::string> eventsPath;  // "-" for standard output
  std::optional<std::string> timelinePath;
  int verbosity = 0;  // 1: DEBUG, 2: TRACE
  bool quiet = false;  // no live line and no summary
  bool listDevices = false;  // list the sound outputs instead of playing
};

// The options, or the exit status when bufplay should end at once: 0 after --help or --version,
// 2 after a message about a bad argument (all already printed).
struct ParsedCommandLine {
  std::optional<Options> options;
  int exitStatus = 0;
};
ParsedCommandLine ParseCommandLine(int argc, char** argv);
