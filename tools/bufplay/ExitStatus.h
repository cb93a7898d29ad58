// bufplay's exit statuses, as its help and the README list them.
#pragma once

constexpr int kExitFinished = 0;       // every sentence finished, or the user stopped playback
constexpr int kExitPlayerError = 1;    // the player reported an error
constexpr int kExitBadInput = 2;       // bad arguments, or input that cannot be read or played
constexpr int kExitAudioRefused = 3;   // the player refused audio that came after a run-out point
