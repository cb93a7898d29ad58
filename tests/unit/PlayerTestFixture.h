// What the player's unit tests share: a started player on a freshly reset fake, a recording
// delegate, readable bytes and a capture of the diagnostic log.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Audio/Platform/AudioSession.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"
#include "fakes/FakePlatform.h"
#include "unit/AudioBufPlayerTestPeer.h"
#include "unit/RecordingDelegate.h"

// Bytes that differ from their neighbours, so that a byte out of place shows.
inline std::vector<uint8_t> testBytes(size_t count, uint8_t seed = 0) {
  std::vector<uint8_t> bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = uint8_t(seed + i % 251);
  return bytes;
}

inline std::vector<DelegateEvent> eventsNamed(const std::vector<DelegateEvent>& events, std::string_view name) {
  std::vector<DelegateEvent> named;
  for (const DelegateEvent& event : events) {
    if (event.name == name) named.push_back(event);
  }
  return named;
}

// Every level goes to stderr, and stderr is captured, until text() is first called.
class CapturedLog {
 public:
  CapturedLog() : savedLevel_(QEN_TTS::log_level()) {
    QEN_TTS::set_log_level(QEN_TTS::QEN_LOG_LEVEL_TRACE);
    testing::internal::CaptureStderr();
  }
  ~CapturedLog() { text(); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  const std::string& text() {
    if (capturing_) {
      capturing_ = false;
      text_ = testing::internal::GetCapturedStderr();
      QEN_TTS::set_log_level(savedLevel_);
    }
    return text_;
  }
  size_t count(std::string_view needle) {
    size_t n = 0;
    for (size_t at = text().find(needle); at != std::string::npos; at = text_.find(needle, at + 1)) ++n;
    return n;
  }

 private:
  const int savedLevel_;
  bool capturing_ = true;
  std::string text_;
};

// Stops the player when the scope ends. Declared after the futures of producer threads, it lets a
// test that fails midway end: the producers wake and return before their futures are destroyed.
class StopOnExit {
 public:
  explicit StopOnExit(AudioBufPlayer& player) : player_(player) {}
  ~StopOnExit() { player_.stop(); }
  StopOnExit(const StopOnExit&) = delete;
  StopOnExit& operator=(const StopOnExit&) = delete;

 private:
  AudioBufPlayer& player_;
};

// The session activation count belongs to the process: a test sees the first use activate it.
inline void endSessionUsesLeftOpen() {
  while (AudioBufPlayerTestPeer::sessionUsageCount() > 0) AudioBufPlayer::SetAudioSessionActivationStatus(false, false);
}

inline std::vector<std::string> callsWith(std::initializer_list<std::string_view> texts) {
  std::vector<std::string> lines = fake::calls();
  std::erase_if(lines, [&](const std::string& line) {
    const auto contains = [&](std::string_view text) { return line.find(text) != std::string::npos; };
    return std::none_of(texts.begin(), texts.end(), contains);
  });
  return lines;
}

class PlayerTest : public testing::Test {
 protected:
  using Format = QEN_TTS::Audio::AudioPlayerAudioFormats;
  static constexpr Format kPCM8K = QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM8K;
  static constexpr Format kPCM16K = QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K;
  static constexpr Format kMP3 = QEN_TTS::Audio::EAudioPlayerAudioFormat_MP3;

  void SetUp() override {
    fake::reset();
    auto last = std::make_shared<std::promise<std::vector<DelegateEvent>>>();
    delivered_ = last->get_future();
    delegate.reset(new RecordingDelegate, [last](RecordingDelegate* recording) {
      last->set_value(recording->events());
      delete recording;
    });
    player = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, false);
    player->start();
  }
  void startOver() {
    player.reset();
    SetUp();
  }

  AudioBufPlayerTestPeer peer() const { return AudioBufPlayerTestPeer(*player); }
  // The first chunk parsed holds no frame (a tag, say), so the request opens no queue with it.
  static void firstChunkHoldsNoFrame() {
    fake::setParserBehaviour(
        [](fake::ParseContext& parse) { return parse.call() == 1 ? noErr : parse.parseByDefault(); });
  }

  AudioBufPlayerError play(std::span<const uint8_t> data, Format format, double offset = 0.0) {
    return player->playData(data, format, delegate, offset);
  }
  AudioBufPlayerError append(std::span<const uint8_t> data, Format format) {
    return player->appendAudioData(data, format, delegate, 0.0);
  }

  // A posted notification holds the delegate: its last reference goes with the last of them.
  std::vector<DelegateEvent> deliveredEvents() {
    delegate.reset();
    if (delivered_.wait_for(RecordingDelegate::kWaitTimeout) != std::future_status::ready) {
      ADD_FAILURE() << "a notification still holds the delegate";
      return {};
    }
    return delivered_.get();
  }

  std::shared_ptr<RecordingDelegate> delegate;
  std::shared_ptr<AudioBufPlayer> player;

 private:
  std::future<std::vector<DelegateEvent>> delivered_;
};
