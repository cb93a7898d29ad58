#include "Audio/Platform/OutputQueue/PortAudioDevice.h"

#include <dlfcn.h>
#include <portaudio.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "Audio/Platform/OutputQueue/PortAudioOutputs.h"
#include "Diagnostics/qen_log.h"

namespace {
// Without a sound card, ALSA and JACK (which PortAudio probes) print dozens of lines on standard
// error. Their quieting functions are looked up at run time so that neither library becomes a
// dependency of ours; PortAudio has already loaded them.
extern "C" {
typedef void (*AlsaErrorHandler)(const char*, int, const char*, int, const char*, ...);
typedef int (*SetAlsaErrorHandler)(AlsaErrorHandler);
typedef void (*JackMessageHandler)(const char*);
typedef void (*SetJackMessageHandler)(JackMessageHandler);
}
void ignoreAlsaError(const char*, int, const char*, int, const char*, ...) {}
void ignoreJackMessage(const char*) {}

void quietenAudioSystems() {
  if (auto set = reinterpret_cast<SetAlsaErrorHandler>(dlsym(RTLD_DEFAULT, "snd_lib_error_set_handler"))) {
    set(ignoreAlsaError);
  }
  for (const char* name : {"jack_set_error_function", "jack_set_info_function"}) {
    if (auto set = reinterpret_cast<SetJackMessageHandler>(dlsym(RTLD_DEFAULT, name))) {
      set(ignoreJackMessage);
    }
  }
}

constexpr uint32_t kPeriodsPerSecond = 100;
// The stream's latency: a speech player wants its first sound soon and its sentence's end on time,
// yet a sound server on a busy machine needs room to be late. Hosts' "low" defaults are a few
// milliseconds (underruns on a loaded machine), their "high" defaults a tenth of a second or more.
constexpr PaTime kOutputLatency = 0.040;
// A delay to the listener beyond this is taken for a host's error in its timing information.
constexpr PaTime kMaxCredibleDelay = 2.0;

class PortAudioDevice final : public OutputDevice {
 public:
  PortAudioDevice(uint32_t sampleRate, uint32_t streamChannels, uint32_t outputChannels)
      : sampleRate_(sampleRate),
        streamChannels_(streamChannels),
        outputChannels_(outputChannels),
        periodFrames_(std::max<uint32_t>(1, sampleRate / kPeriodsPerSecond)),
        scratch_(size_t(periodFrames_) * streamChannels) {}

  // Lets the host's buffer play out: what is left in it belongs to audio the queue has finished.
  ~PortAudioDevice() override {
    if (started_) {
      stopping_.store(true);
      Pa_StopStream(stream_);
    }
    if (stream_ != nullptr) {
      Pa_CloseStream(stream_);
    }
  }

  OSStatus open(PaDeviceIndex device, PaTime latency) {
    const PaStreamParameters output{device, int(outputChannels_), paInt16, latency, nullptr};
    const PaError error =
        Pa_OpenStream(&stream_, nullptr, &output, sampleRate_, periodFrames_, paClipOff, &PortAudioDevice::callback, this);
    if (error != paNoError) {
      stream_ = nullptr;
      LOG_ERROR("cannot open the sound output: %s", Pa_GetErrorText(error));
      return kAudioQueueErr_DeviceFailed;
    }
    Pa_SetStreamFinishedCallback(stream_, &PortAudioDevice::finished);
    const PaStreamInfo* info = Pa_GetStreamInfo(stream_);
    streamLatency_ = info != nullptr ? info->outputLatency : latency;
    return noErr;
  }

  uint32_t sampleRate() const override { return sampleRate_; }
  uint32_t periodFrames() const override { return periodFrames_; }

  OSStatus start(RenderSource& source) override {
    if (started_) {
      return noErr;
    }
    source_ = &source;
    stopping_.store(false);
    const PaError error = Pa_StartStream(stream_);
    if (error != paNoError) {
      LOG_ERROR("cannot start the sound output: %s", Pa_GetErrorText(error));
      return kAudioQueueErr_DeviceFailed;
    }
    started_ = true;
    return noErr;
  }

  void stop() override {
    if (started_) {
      stopping_.store(true);
      Pa_AbortStream(stream_);  // already faded out or no longer wanted: no need to play the rest
      started_ = false;
    }
  }

 private:
  // PortAudio's real-time thread.
  static int callback(const void*, void* output, unsigned long frames, const PaStreamCallbackTimeInfo* time,
                      PaStreamCallbackFlags, void* self) {
    auto* device = static_cast<PortAudioDevice*>(self);
    device->fill(static_cast<int16_t*>(output), frames, device->framesBeforeHeard(time));
    return paContinue;
  }

  // PortAudio's real-time thread: how many frames the host holds before this call's first frame
  // is heard. The time of that frame at the converter, when the host reports it; the stream's
  // latency otherwise.
  uint64_t framesBeforeHeard(const PaStreamCallbackTimeInfo* time) const {
    PaTime delay = streamLatency_;
    if (time != nullptr && time->outputBufferDacTime > 0.0 && time->currentTime > 0.0) {
      const PaTime reported = time->outputBufferDacTime - time->currentTime;
      if (reported >= 0.0 && reported <= kMaxCredibleDelay) {
        delay = reported;
      }
    }
    return uint64_t(delay * sampleRate_ + 0.5);
  }

  // PortAudio's thread, once the stream has become inactive: when this device did not stop it, the
  // sound output went away (unplugged, its server gone).
  static void finished(void* self) {
    auto* device = static_cast<PortAudioDevice*>(self);
    if (!device->stopping_.load()) {
      device->source_->lost();
    }
  }

  // PortAudio's real-time thread: renders, spreading a mono stream over both output channels.
  // Each piece's last frame is heard `ahead` frames after this call's first.
  void fill(int16_t* out, unsigned long frames, uint64_t ahead) {
    if (outputChannels_ == streamChannels_) {
      source_->render(out, frames, ahead + frames);
      return;
    }
    for (unsigned long done = 0; done < frames;) {
      const size_t count = std::min<size_t>(frames - done, periodFrames_);
      done += count;
      source_->render(scratch_.data(), count, ahead + done);
      for (size_t i = 0; i < count; ++i) {
        out[2 * i] = out[2 * i + 1] = scratch_[i];
      }
      out += 2 * count;
    }
  }

  const uint32_t sampleRate_;
  const uint32_t streamChannels_;
  const uint32_t outputChannels_;
  const uint32_t periodFrames_;
  std::vector<int16_t> scratch_;
  PaStream* stream_ = nullptr;
  PaTime streamLatency_ = 0.0;
  RenderSource* source_ = nullptr;
  bool started_ = false;
  std::atomic<bool> stopping_{false};
};
}  // namespace

bool PortAudioOutputExists() {
  static const bool exists = [] {
    quietenAudioSystems();
    return Pa_Initialize() == paNoError && Pa_GetDefaultOutputDevice() != paNoDevice;
  }();
  return exists;
}

std::unique_ptr<OutputDevice> OpenPortAudioDevice(uint32_t sampleRate, uint32_t channels, const std::string& deviceName,
                                                  OSStatus* status) {
  *status = kAudioQueueErr_DeviceFailed;
  const PaDeviceIndex device = deviceName.empty() ? Pa_GetDefaultOutputDevice() : PortAudioOutputIndex(deviceName);
  const PaDeviceInfo* info = device != paNoDevice ? Pa_GetDeviceInfo(device) : nullptr;
  if (info == nullptr) {
    return nullptr;
  }
  // The stream's own rate and channel count first; then stereo for a mono stream; then the
  // output's own rate, which the queue converts to.
  for (const uint32_t rate : {sampleRate, uint32_t(info->defaultSampleRate)}) {
    for (const uint32_t outputChannels : {channels, 2u}) {
      const PaTime latency = std::max(kOutputLatency, info->defaultLowOutputLatency);
      const PaStreamParameters output{device, int(outputChannels), paInt16, latency, nullptr};
      if (outputChannels < channels || Pa_IsFormatSupported(nullptr, &output, rate) != paFormatIsSupported) {
        continue;
      }
      auto opened = std::make_unique<PortAudioDevice>(rate, channels, outputChannels);
      *status = opened->open(device, latency);
      return *status == noErr ? std::move(opened) : nullptr;
    }
  }
  LOG_ERROR("the sound output takes neither %u Hz nor %.0f Hz with %u channels", sampleRate, info->defaultSampleRate,
            channels);
  return nullptr;
}
