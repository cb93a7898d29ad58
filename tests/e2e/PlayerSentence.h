// Plays one sentence through the real player and platform, in this process, into the "wav:PATH"
// output: the first chunk by playData, the rest by appendAudioData, on one producer thread (which
// the player blocks while every buffer is in flight, so the producer stays ahead of playback).
#pragma once

#include <filesystem>
#include <future>
#include <memory>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "e2e/WavRecording.h"
#include "unit/RecordingDelegate.h"

namespace bufplay_test {

using Format = QEN_TTS::Audio::AudioPlayerAudioFormats;
inline constexpr Format kPCM8K = QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM8K;
inline constexpr Format kPCM16K = QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K;
inline constexpr Format kMP3 = QEN_TTS::Audio::EAudioPlayerAudioFormat_MP3;

struct Chunk {
  std::vector<uint8_t> bytes;
  Format format;
};

struct SentenceOutcome {
  std::vector<AudioBufPlayerError> results;  // one per chunk
  std::vector<DelegateEvent> events;         // every report, all of them delivered
  std::vector<Recording> recordings;         // one per output queue opened, in order
};

// `endReport` ends the sentence; with none, the player is stopped once everything was fed.
inline SentenceOutcome PlaySentence(const std::vector<Chunk>& chunks, const std::string& endReport, double speed) {
  ScratchFolder scratch;
  SentenceOutcome outcome;
  EXPECT_EQ(AudioOutputSelect("wav:" + scratch.file("out.wav"), speed), noErr);
  // A notification holds the delegate: its last reference goes with the last report delivered.
  auto last = std::make_shared<std::promise<std::vector<DelegateEvent>>>();
  std::future<std::vector<DelegateEvent>> delivered = last->get_future();
  std::shared_ptr<RecordingDelegate> delegate(new RecordingDelegate, [last](RecordingDelegate* recording) {
    last->set_value(recording->events());
    delete recording;
  });
  std::shared_ptr<AudioBufPlayer> player = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, false);
  player->setVolume(1.0f);  // a new player plays at half volume
  player->start();
  auto producer = std::async(std::launch::async, [&] {
    std::vector<AudioBufPlayerError> results;
    for (const Chunk& chunk : chunks) {
      results.push_back(results.empty() ? player->playData(chunk.bytes, chunk.format, delegate, 0.0)
                                        : player->appendAudioData(chunk.bytes, chunk.format, delegate, 0.0));
    }
    return results;
  });
  if (producer.wait_for(RecordingDelegate::kWaitTimeout) != std::future_status::ready) {
    ADD_FAILURE() << "the producer is still blocked";
    player->stop();  // lets it return
  }
  outcome.results = producer.get();
  if (!endReport.empty()) {
    EXPECT_TRUE(delegate->waitFor(endReport));
  }
  player->stop();
  player.reset();
  delegate.reset();
  if (delivered.wait_for(RecordingDelegate::kWaitTimeout) == std::future_status::ready) {
    outcome.events = delivered.get();
  } else {
    ADD_FAILURE() << "a notification still holds the delegate";
  }
  EXPECT_TRUE(AudioQueueWaitForReleases(30.0)) << "a queue kept its recording open";
  for (int n = 1;; ++n) {
    const std::string path = scratch.file(n == 1 ? "out.wav" : "out-" + std::to_string(n) + ".wav");
    if (!std::filesystem::exists(path)) break;
    outcome.recordings.push_back(ReadRecording(path));
  }
  return outcome;
}

}  // namespace bufplay_test
