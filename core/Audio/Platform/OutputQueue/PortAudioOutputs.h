// PortAudio's sound outputs by name, for a host program that picks one ("device:NAME").
#pragma once

#include <portaudio.h>

#include <string>

// The index of the output device of that name, or paNoDevice. Sets PortAudio up first.
PaDeviceIndex PortAudioOutputIndex(const std::string& name);
