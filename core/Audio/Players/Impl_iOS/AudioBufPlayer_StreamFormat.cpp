// The MP3 parser's property reports: once it is ready to produce packets, its data format opens
// the output queue. Runs inside AudioFileStreamParseBytes on the feeding thread, with
// playerStatusMutex held; the format handling also takes objectLock, as the session
// configuration does, so that opening the queue and reconfiguring the session never overlap.
#include "Audio/Platform/AudioFileStream.h"
#include "Audio/Platform/PlatformException.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"

void AudioPropertyListenerProc(void* inClientData, AudioFileStreamID inAudioFileStream,
                               AudioFileStreamPropertyID inPropertyID, uint32_t* ioFlags) {
  if (std::shared_ptr<AudioBufPlayer> player = AudioBufPlayer::fromClientData(inClientData)) {
    player->AudioPropertyFoundForStream(inAudioFileStream, inPropertyID, ioFlags);
  }
}

void AudioBufPlayer::AudioPropertyFoundForStream(AudioFileStreamID stream, AudioFileStreamPropertyID propertyID,
                                                 uint32_t*) {
  if (stream != audioFileStream) return;
  if (!hasStatus(PS_ACTIVE)) return;
  try {
    LOG_DEBUG("found property '%c%c%c%c'\n", char(propertyID >> 24), char(propertyID >> 16), char(propertyID >> 8),
              char(propertyID));
    if (propertyID != kAudioFileStreamProperty_ReadyToProducePackets) return;

    std::lock_guard lock(objectLock);
    AudioStreamBasicDescription description{};
    uint32_t size = sizeof description;
    const OSStatus status =
        AudioFileStreamGetProperty(audioFileStream, kAudioFileStreamProperty_DataFormat, &size, &description);
    if (status != noErr) {
      LOG_ERROR("Err at %s %d", "-[AudioBufPlayer AudioPropertyFoundForStream:propertyID:Flags:]", __LINE__);
      endRequest();
      notifyDelegateOfPlatformError(AudioBufPlayerError_FAILED_GET_STREAM_PROPERTIES, "AudioFileStreamParseBytes",
                                    status);
      return;
    }
    SamplesPerPacket = description.mFramesPerPacket;
    _sampleRate.store(description.mSampleRate);
    LOG_DEBUG("\n\t\t\t\t\t\t++++++++++++ ASBD ++++++++++++\n"
              "                                ASBD.bitsPerChannel: %u\n"
              "                                ASBD.mBytesPerFrame: %u\n"
              "                                ASBD.mBytesPerPacket: %u\n"
              "                                ASBD.mChannelsPerFrame: %u\n"
              "                                ASBD.mFormatFlags: %u\n"
              "                                ASBD.mFormatID: %u\n"
              "                                ASBD.mFramesPerPacket: %u\n"
              "                                ASBD.mReserved: %u\n"
              "                                ASBD.mSampleRate: %f",
              description.mBitsPerChannel, description.mBytesPerFrame, description.mBytesPerPacket,
              description.mChannelsPerFrame, description.mFormatFlags, description.mFormatID,
              description.mFramesPerPacket, description.mReserved, description.mSampleRate);
    openAudioQueueWithDescription(description);
  } catch (const PlatformException& exception) {
    LOG_ERROR("%s %d Audio init exception: %s", __FILE__, __LINE__, exception.description());
    endRequest();
    notifyDelegateOfError(AudioBufPlayerError_FAILED_OPEN_DEVICE,
                          std::string("Exception while init audio: ") + exception.description());
  }
}
