// Audio formats that the speech library hands to a player.
#pragma once

#include <cstdint>

namespace QEN_TTS {
namespace Audio {

enum AudioPlayerAudioFormats : int32_t {
  EAudioPlayerAudioFormat_PCM8K = 0,   // 16-bit signed little-endian mono at 8000 Hz
  EAudioPlayerAudioFormat_PCM16K = 1,  // the same at 16000 Hz
  EAudioPlayerAudioFormat_MP3 = 2,
  EAudioPlayerAudioFormat_WAV = 3,     // not played: refused as unsupported
  EAudioPlayerAudioFormat_ALAW = 4,    // not played: refused as unsupported
};

}  // namespace Audio
}  // namespace QEN_TTS
