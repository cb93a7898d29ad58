#include "Audio/Platform/AudioSession.h"

const char* const AVAudioSessionInterruptionNotification = "AVAudioSessionInterruptionNotification";
const char* const AVAudioSessionRouteChangeNotification = "AVAudioSessionRouteChangeNotification";
const char* const AVAudioSessionInterruptionTypeKey = "AVAudioSessionInterruptionTypeKey";
