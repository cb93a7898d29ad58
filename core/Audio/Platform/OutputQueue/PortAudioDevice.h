// The machine's sound output, through PortAudio's default output device.
//
// PortAudio calls render() on its real-time thread; the only state shared with it is the source
// pointer, set before the stream starts and read after, and the scratch buffer used to spread a
// mono stream over an output that takes stereo only, allocated at opening.
//
// The stream asks for 40 ms of latency. Each call tells the source how far its frames are from
// the listener: the host's own timing (the converter's time of the call's first frame), or the
// stream's reported latency where the host gives none. Releasing the device lets what the host
// still holds play out; stop() cuts it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Audio/Platform/OutputQueue/OutputDevice.h"

// Opens the output of that name (empty: the default output) for a stream of this rate and channel
// count: at the stream's rate when the output takes it, else at the output's own rate. Null and
// *status set when it cannot.
std::unique_ptr<OutputDevice> OpenPortAudioDevice(uint32_t sampleRate, uint32_t channels, const std::string& deviceName,
                                                  OSStatus* status);
