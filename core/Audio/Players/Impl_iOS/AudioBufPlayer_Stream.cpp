// Opening a sentence's stream and feeding its chunks in. PCM goes straight to the packer; MP3 goes
// through the stream parser, whose callbacks run inside AudioFileStreamParseBytes on this thread.
// Caller holds playerStatusMutex throughout.
#include "Audio/Platform/AudioFileStream.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"

void AudioPropertyListenerProc(void* inClientData, AudioFileStreamID inAudioFileStream,
                               AudioFileStreamPropertyID inPropertyID, uint32_t* ioFlags);
void AudioPacketsProc(void* inClientData, uint32_t inNumberBytes, uint32_t inNumberPackets, const void* inInputData,
                      AudioStreamPacketDescription* inPacketDescriptions);

AudioBufPlayerError AudioBufPlayer::initStreamForPCM(double sampleRate) {
  receivedSamples.store(0);
  broadcastStatusChange();
  AudioStreamBasicDescription description{};
  description.mSampleRate = sampleRate;
  description.mFormatID = kAudioFormatLinearPCM;
  description.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
  description.mBytesPerPacket = 2;
  description.mFramesPerPacket = 1;
  description.mBytesPerFrame = 2;
  description.mChannelsPerFrame = 1;
  description.mBitsPerChannel = 16;
  description.mReserved = 0;
  SamplesPerPacket = description.mFramesPerPacket;
  _sampleRate.store(description.mSampleRate);
  // Failures are reported by the opening itself; without a queue the packer drops the audio.
  openAudioQueueWithDescription(description);
  return AudioBufPlayerError_OK;
}

AudioBufPlayerError AudioBufPlayer::initStreamForAudioStreamFormat(AudioFileTypeID) {
  receivedSamples.store(0);
  broadcastStatusChange();
  if (audioFileStream) {
    const OSStatus closed = AudioFileStreamClose(audioFileStream);
    audioFileStream = nullptr;
    LOG_DEBUG("audio file stream close: %d", int(closed));
  }
  // No type hint: the parser finds the format in the bytes.
  const OSStatus status =
      AudioFileStreamOpen(clientData(), AudioPropertyListenerProc, AudioPacketsProc, 0, &audioFileStream);
  if (status != noErr) {
    LOG_DEBUG("Error init audio stream: %d", int(status));
    return AudioBufPlayerError_FAILED_INIT_STREAM;
  }
  return AudioBufPlayerError_OK;
}

AudioBufPlayerError AudioBufPlayer::receiveMP3Stream(std::span<const uint8_t> data) {
  return receiveSupportedStreamPackage(data, kAudioFileMP3Type);
}

AudioBufPlayerError AudioBufPlayer::receiveSupportedStreamPackage(std::span<const uint8_t> data, AudioFileTypeID) {
  const OSStatus status = AudioFileStreamParseBytes(audioFileStream, uint32_t(data.size()), data.data(), 0);
  LOG_DEBUG("parse err: %d", int(status));
  if (status != noErr) {
    LOG_DEBUG("parse err: %d", int(status));
    notifyDelegateOfPlatformError(AudioBufPlayerError_FAILED_PARSE_STREAM, "AudioFileStreamParseBytes", status);
    return AudioBufPlayerError_FAILED_PARSE_STREAM;
  }
  return AudioBufPlayerError_OK;
}

AudioBufPlayerError AudioBufPlayer::receivePCM8KStream(std::span<const uint8_t> data) { return receivePCMStream(data); }

AudioBufPlayerError AudioBufPlayer::receivePCM16KStream(std::span<const uint8_t> data) {
  return receivePCMStream(data);
}

AudioBufPlayerError AudioBufPlayer::receivePCMStream(std::span<const uint8_t> data) {
  const auto byteCount = uint32_t(data.size());
  // The parser's handle is the stream identity the packer expects, whether or not one is open.
  AudioPacketsFoundCallback(byteCount, byteCount >> 1, data.data(), nullptr, audioFileStream);
  return AudioBufPlayerError_OK;
}
