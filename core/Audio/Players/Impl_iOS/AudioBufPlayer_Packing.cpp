// Packing parsed packets into output-queue-sized buffers. Every delivery ends by handing over what
// it staged, so nothing waits in tmpAudioBuffer for the next chunk.
// Runs on the feeding thread with playerStatusMutex held (given up only inside enqueData).
#include <algorithm>

#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"

void AudioPacketsProc(void* inClientData, uint32_t inNumberBytes, uint32_t inNumberPackets, const void* inInputData,
                      AudioStreamPacketDescription* inPacketDescriptions) {
  if (std::shared_ptr<AudioBufPlayer> player = AudioBufPlayer::fromClientData(inClientData)) {
    player->AudioPacketsFoundCallback(inNumberBytes, inNumberPackets, inInputData, inPacketDescriptions,
                                      player->audioFileStream);
  }
}

void AudioBufPlayer::AudioPacketsFoundCallback(uint32_t byteCount, uint32_t packetCount, const void* AudioData,
                                               const AudioStreamPacketDescription* packetDescriptions,
                                               AudioFileStreamID fromAudioStream) {
  if (fromAudioStream != audioFileStream) return;
  if (!audioQueue) {
    // The stream's queue could not be opened: none of the sentence's audio can ever play, so it
    // ends now with the error the opening reported, and the client's next chunk starts a new one.
    if (byteCount > 0 && hasStatus(PS_ACTIVE)) {
      LOG_ERROR("No output queue to play the sentence: it ends");
      endRequest();
    }
    return;
  }
  updateProgressEstimations(packetCount);
  const auto* data = static_cast<const uint8_t*>(AudioData);
  if (packetDescriptions) {
    packByDescription(byteCount, packetCount, data, packetDescriptions);
  } else {
    packByBytes(byteCount, packetCount, data);
  }
}

void AudioBufPlayer::updateProgressEstimations(uint32_t packetCount) {
  const uint64_t samples = uint64_t(packetCount) * SamplesPerPacket;
  receivedSamples.fetch_add(samples);
  const double length = receivedAudioLength.load() + double(samples) / _sampleRate.load();
  receivedAudioLength.store(length);
  tellDelegateWhileLocked([this, length](AudioBufPlayerDelegate& delegate) {
    delegate.updatedTotalLength(length + reportAudioLenOffset(), this);
  });
}

void AudioBufPlayer::packByDescription(uint32_t byteCount, uint32_t packetCount, const uint8_t* data,
                                       const AudioStreamPacketDescription* descriptions) {
  for (uint32_t i = 0; i < packetCount; ++i) {
    if (!hasStatus(PS_ACTIVE)) return;
    const int64_t offset = descriptions[i].mStartOffset;
    const auto size = int32_t(descriptions[i].mDataByteSize);
    if (size == 0) continue;  // nothing to play
    if (size < 0 || uint32_t(size) > kBufferByteSize) {
      LOG_ERROR("Dropped a packet of %d bytes: a queue buffer holds %u", size, kBufferByteSize);
      continue;
    }
    if (offset < 0 || offset + size > int64_t(byteCount)) {
      LOG_ERROR("Dropped a packet at offset %lld: it lies outside the %u bytes delivered", (long long)offset,
                byteCount);
      continue;
    }
    if (tmpAudioBuffer.size() + size_t(size) > kBufferByteSize || descIndex == kMaxPacketDescriptions) {
      handOverStagedAudio(true);
    }
    AudioStreamPacketDescription& staged = packetDescs[descIndex++];
    staged = descriptions[i];
    staged.mStartOffset = int64_t(tmpAudioBuffer.size());
    tmpAudioBuffer.insert(tmpAudioBuffer.end(), data + offset, data + offset + size);
  }
  if (!tmpAudioBuffer.empty()) handOverStagedAudio(true);
}

void AudioBufPlayer::packByBytes(uint32_t byteCount, uint32_t packetCount, const uint8_t* data) {
  // Fewer bytes than packets gives 0 bytes per packet: then the bytes are copied as raw bytes (the
  // queue keeps a PCM stream aligned across buffers), so a one-byte chunk still reaches the queue.
  const uint32_t bytesPerPacket = packetCount ? byteCount / packetCount : 0;
  // Packets larger than a queue buffer cannot be kept whole either.
  const uint32_t unit = (bytesPerPacket && bytesPerPacket <= kBufferByteSize) ? bytesPerPacket : 1;
  uint32_t remaining = byteCount;
  uint32_t position = 0;
  while (remaining > 0) {
    if (!hasStatus(PS_ACTIVE)) return;
    uint32_t space = kBufferByteSize - uint32_t(tmpAudioBuffer.size());
    space -= space % unit;
    const uint32_t count = std::min(space, remaining);
    tmpAudioBuffer.insert(tmpAudioBuffer.end(), data + position, data + position + count);
    remaining -= count;
    position += count;
    if (remaining > 0) handOverStagedAudio(false);
  }
  if (!tmpAudioBuffer.empty()) handOverStagedAudio(false);
}

void AudioBufPlayer::handOverStagedAudio(bool withDescriptions) {
  enqueData(tmpAudioBuffer, withDescriptions ? packetDescs.data() : nullptr, withDescriptions ? descIndex : 0);
  tmpAudioBuffer.clear();
  descIndex = 0;
}
