#include "Audio/Platform/OutputQueue/PortAudioOutputs.h"

#include "Audio/Platform/OutputQueue/OutputDevices.h"

namespace {

// Calls `each` with every device that can play, until it returns true; returns that device.
template <typename Visit>
PaDeviceIndex FindOutput(Visit each) {
  PortAudioOutputExists();  // sets PortAudio up, once per process
  const PaDeviceIndex count = Pa_GetDeviceCount();
  for (PaDeviceIndex device = 0; device < count; ++device) {
    const PaDeviceInfo* info = Pa_GetDeviceInfo(device);
    if (info != nullptr && info->maxOutputChannels > 0 && each(info->name)) {
      return device;
    }
  }
  return paNoDevice;
}

}  // namespace

PaDeviceIndex PortAudioOutputIndex(const std::string& name) {
  return FindOutput([&](const char* deviceName) { return name == deviceName; });
}

std::vector<std::string> PortAudioOutputNames() {
  std::vector<std::string> names;
  FindOutput([&](const char* deviceName) {
    names.emplace_back(deviceName);
    return false;
  });
  return names;
}
