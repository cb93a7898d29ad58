// The process-wide choice of sound output, and the factory that opens one for each new queue. The
// choice is guarded by one mutex, held while a device is chosen and opened (never while one plays).
//
// Fault switches for tests, when they come, belong here: a device that wraps the chosen one.
#include "Audio/Platform/OutputQueue/OutputDevices.h"

#include <cmath>
#include <mutex>

#include "Audio/Platform/OutputQueue/ClockedDevice.h"
#include "Audio/Platform/OutputQueue/ManualDevice.h"
#include "Audio/Platform/OutputQueue/OutputDevice.h"
#include "Audio/Platform/OutputQueue/PortAudioDevice.h"
#include "Audio/Platform/OutputQueue/PortAudioOutputs.h"
#include "Audio/Platform/OutputQueue/WavWriter.h"
#include "Diagnostics/qen_log.h"

namespace {
// Two seconds: as much as a queue keeps track of (Playout).
constexpr double kMaxModelledLatency = 2.0;

struct Selection {
  enum class Kind { Default, Null, Wav, Manual } kind = Kind::Default;
  std::string wavPath;
  std::string deviceName;  // Default: a PortAudio output by name; empty: PortAudio's default output
  uint32_t manualRate = 0;  // 0: whatever the stream's
  double speed = 1.0;
  double latencySeconds = 0.0;
  unsigned wavFilesOpened = 0;
};

// Never destroyed: queues may be created while the process exits.
std::mutex& selectionMutex() {
  static auto* const mutex = new std::mutex;
  return *mutex;
}
Selection& selection() {
  static auto* const current = new Selection;
  return *current;
}

bool parse(const std::string& output, double speed, double latencySeconds, Selection* out) {
  const auto startsWith = [&](const char* prefix) { return output.rfind(prefix, 0) == 0; };
  if (!std::isfinite(speed) || speed <= 0.0 || !(latencySeconds >= 0.0 && latencySeconds <= kMaxModelledLatency)) {
    return false;
  }
  out->speed = speed;
  out->latencySeconds = latencySeconds;
  if (output == "null") {
    out->kind = Selection::Kind::Null;
    return true;
  }
  if (startsWith("wav:") && output.size() > 4) {
    out->kind = Selection::Kind::Wav;
    out->wavPath = output.substr(4);
    return true;
  }
  if (speed != 1.0) {
    return false;
  }
  if (output == "default") {
    out->kind = Selection::Kind::Default;
    return latencySeconds == 0.0;
  }
  if (startsWith("device:")) {
    out->kind = Selection::Kind::Default;
    out->deviceName = output.substr(7);
    return latencySeconds == 0.0 && PortAudioOutputIndex(out->deviceName) != paNoDevice;
  }
  if (output == "manual") {
    out->kind = Selection::Kind::Manual;
    return true;
  }
  if (startsWith("manual:")) {
    const std::string digits = output.substr(7);
    const bool numeric = !digits.empty() && digits.size() <= 6 && digits.find_first_not_of("0123456789") == std::string::npos;
    const unsigned long rate = numeric ? std::stoul(digits) : 0;
    out->kind = Selection::Kind::Manual;
    out->manualRate = uint32_t(rate);
    return rate >= 1000 && rate <= 768000;
  }
  return false;
}

// "out.wav" -> "out-2.wav" for the second file; the extension is what follows the last dot of the
// file name.
std::string wavPathFor(const std::string& path, unsigned index) {
  if (index == 1) {
    return path;
  }
  const size_t slash = path.rfind('/');
  const size_t dot = path.rfind('.');
  const bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
  const size_t cut = hasExtension ? dot : path.size();
  return path.substr(0, cut) + "-" + std::to_string(index) + path.substr(cut);
}
}  // namespace

OSStatus AudioOutputSelect(const std::string& output, double speed, double latencySeconds) {
  Selection parsed;
  if (!parse(output, speed, latencySeconds, &parsed)) {
    return kAudioQueueErr_InvalidParameter;
  }
  std::lock_guard<std::mutex> lock(selectionMutex());
  selection() = parsed;
  return noErr;
}

std::unique_ptr<OutputDevice> OpenOutputDevice(uint32_t sampleRate, uint32_t channels, OSStatus* status) {
  std::unique_lock<std::mutex> lock(selectionMutex());
  Selection& chosen = selection();
  const auto latencyFrames = uint32_t(std::lround(chosen.latencySeconds * sampleRate));
  *status = noErr;
  switch (chosen.kind) {
    case Selection::Kind::Default:
      if (!chosen.deviceName.empty() || PortAudioOutputExists()) {
        return OpenPortAudioDevice(sampleRate, channels, chosen.deviceName, status);
      }
      {
        static std::once_flag told;
        std::call_once(told, [] { LOG_ERROR("no sound output on this machine: audio goes to the null output"); });
      }
      return std::make_unique<ClockedDevice>(sampleRate, channels, 1.0, 0, nullptr);
    case Selection::Kind::Null:
      return std::make_unique<ClockedDevice>(sampleRate, channels, chosen.speed, latencyFrames, nullptr);
    case Selection::Kind::Wav: {
      const std::string path = wavPathFor(chosen.wavPath, ++chosen.wavFilesOpened);
      const double speed = chosen.speed;
      lock.unlock();
      auto writer = std::make_shared<WavWriter>(path, sampleRate, channels, status);
      if (*status != noErr) {
        return nullptr;
      }
      return std::make_unique<ClockedDevice>(
          sampleRate, channels, speed, latencyFrames,
          [writer](const int16_t* samples, size_t frames) { writer->append(samples, frames); });
    }
    case Selection::Kind::Manual: {
      const uint32_t rate = chosen.manualRate != 0 ? chosen.manualRate : sampleRate;
      return std::make_unique<ManualDevice>(rate, channels, uint32_t(std::lround(chosen.latencySeconds * rate)));
    }
  }
  *status = kAudioQueueErr_DeviceFailed;
  return nullptr;
}
