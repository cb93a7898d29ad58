// Drives the whole player on the fake platform from arbitrary bytes: the chunks a client thread
// feeds (now and then in another format, empty, odd-sized) and the user's and the sound device's
// calls meanwhile. MP3 goes through the real stream parser behind the fake's parser handles. At the
// end the device plays everything out; the fuzzer aborts when the client stays blocked, when a call
// returns what it may not, or when a sentence with queued audio does not end. That the audio heard
// equals the audio fed is the end-to-end tests' business.
#include <fuzzer/FuzzedDataProvider.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Audio/Platform/Dispatch.h"
#include "Audio/Platform/StreamParser/Mp3StreamParser.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "Diagnostics/qen_log.h"
#include "fakes/FakePlatform.h"
#include "unit/AudioBufPlayerTestPeer.h"

namespace {

using Format = QEN_TTS::Audio::AudioPlayerAudioFormats;
using namespace std::chrono_literals;

// Far beyond anything a correct player needs for one input: reaching it is a hang.
constexpr auto kHangDeadline = 10s;

// On failure prints the fake's call log, which tells what the player did to get there.
void check(bool condition, const char* what) {
  if (condition) return;
  for (const std::string& line : fake::calls()) std::fprintf(stderr, "  %s\n", line.c_str());
  std::fprintf(stderr, "player_fuzzer: %s\n", what);
  std::abort();
}

// The real parser behind one fake parser handle; the fake answers its format to the player.
class RealParser {
 public:
  explicit RealParser(AudioFileStreamID handle) : parser_(handle, this, onProperty, onPackets) {}

  OSStatus parse(fake::ParseContext& context) {
    context_ = &context;
    return parser_.Parse(context.bytes().data(), context.bytes().size());
  }

 private:
  static void onProperty(void* self, AudioFileStreamID, AudioFileStreamPropertyID property, uint32_t*) {
    auto& real = *static_cast<RealParser*>(self);
    if (real.parser_.format()) fake::setParserDataFormat(*real.parser_.format());
    real.context_->reportProperty(property);
  }
  static void onPackets(void* self, uint32_t byteCount, uint32_t packetCount, const void* data,
                        AudioStreamPacketDescription* descriptions) {
    static_cast<RealParser*>(self)->context_->deliverPackets(std::span(static_cast<const uint8_t*>(data), byteCount),
                                                             std::span(descriptions, packetCount));
  }

  Mp3StreamParser parser_;
  fake::ParseContext* context_ = nullptr;
};

void useRealParsers() {
  auto parsers = std::make_shared<std::map<int, std::unique_ptr<RealParser>>>();
  fake::setParserBehaviour([parsers](fake::ParseContext& context) {
    auto& parser = (*parsers)[context.parser()];
    if (!parser) parser = std::make_unique<RealParser>(context.handle());
    return parser->parse(context);
  });
}

class EndsDelegate : public AudioBufPlayerDelegate {
 public:
  void playerWillStartPlayback(AudioBufPlayer*) override {}
  void updatedTotalLength(double, AudioBufPlayer*) override {}
  void playProgressChanged(double, AudioBufPlayer*) override {}
  void aboutToEnd(AudioBufPlayer*) override {}
  void PlaybackFinished(AudioBufPlayer*) override { ++ends; }
  void PlayerError(AudioBufPlayerError, AudioBufPlayer*, const std::string&) override { ++ends; }
  void PlayerWasPaused(AudioBufPlayerPauseSource, AudioBufPlayer*) override {}
  void PlayerWasResumed(AudioBufPlayer*) override {}

  std::atomic<size_t> ends{0};
};

// Plays the current queue's oldest buffer back, the clock at its end for the progress poll.
class Device {
 public:
  bool playOne() {
    if (fake::queueCount() == 0) return false;
    fake::Queue queue = fake::lastQueue();
    const fake::QueueState state = queue.state();
    if (state.disposed || !state.started || state.paused || state.waitingBuffers() == 0) return false;
    if (state.id != queueId_) {
      queueId_ = state.id;
      frames_ = 0;
    }
    const fake::EnqueuedBuffer& next = state.enqueued[state.enqueued.size() - state.waitingBuffers()];
    frames_ += next.packets ? double(next.packets) * state.format.mFramesPerPacket : double(next.bytes.size() / 2);
    queue.setSampleTime(frames_);
    return queue.playBack();
  }

 private:
  int queueId_ = 0;
  double frames_ = 0.0;
};

using Control = void (*)(AudioBufPlayer& player, Device& device, uint8_t argument);
constexpr Control kControls[] = {
    [](AudioBufPlayer& player, Device&, uint8_t) { player.pause(); },
    [](AudioBufPlayer& player, Device&, uint8_t) { player.resume(); },
    [](AudioBufPlayer& player, Device&, uint8_t) { player.stop(); },
    [](AudioBufPlayer& player, Device&, uint8_t) { player.start(); },
    [](AudioBufPlayer& player, Device&, uint8_t argument) { player.setVolume(float(argument) / 128.0f - 0.25f); },
    [](AudioBufPlayer&, Device& device, uint8_t argument) {
      for (int i = 0; i < argument % 4 && device.playOne(); ++i) {
      }
    },
    [](AudioBufPlayer&, Device& device, uint8_t) {
      while (device.playOne()) {
      }
    },
};

struct Feed {
  bool append;
  Format format;
  std::vector<uint8_t> bytes;
};

struct Input {
  std::vector<Feed> feeds;
  std::vector<std::pair<size_t, uint8_t>> controls;  // an index into kControls and its argument
};

Input decode(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  static constexpr Format kFormats[] = {
      QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM8K, QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K,
      QEN_TTS::Audio::EAudioPlayerAudioFormat_MP3, QEN_TTS::Audio::EAudioPlayerAudioFormat_ALAW, Format(77)};
  const Format sentence = kFormats[in.ConsumeIntegralInRange<size_t>(0, 2)];
  Input input;
  const size_t feeds = in.ConsumeIntegralInRange<size_t>(1, 8);
  for (size_t i = 0; i < feeds; ++i) {
    Feed feed;
    feed.append = i > 0 && in.ConsumeBool();
    const uint8_t pick = in.ConsumeIntegral<uint8_t>();
    feed.format = pick < 224 ? sentence : kFormats[pick % std::size(kFormats)];
    feed.bytes = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 9000));
    input.feeds.push_back(std::move(feed));
  }
  const size_t controls = in.ConsumeIntegralInRange<size_t>(0, 12);
  for (size_t i = 0; i < controls; ++i) {
    const size_t control = in.ConsumeIntegralInRange<size_t>(0, std::size(kControls) - 1);
    input.controls.emplace_back(control, in.ConsumeIntegral<uint8_t>());
  }
  return input;
}

bool mayReturn(const Feed& feed, AudioBufPlayerError result) {
  switch (result) {
    case AudioBufPlayerError_OK:
    case AudioBufPlayerError_STOPPED:
      return true;
    case AudioBufPlayerError_SWITCH_FORMAT:
      return feed.append;
    case AudioBufPlayerError_UNSUPPORTED_FORMAT:
      return feed.format > QEN_TTS::Audio::EAudioPlayerAudioFormat_MP3;
    case AudioBufPlayerError_FAILED_PARSE_STREAM:
      return feed.format == QEN_TTS::Audio::EAudioPlayerAudioFormat_MP3;
    default:
      return false;
  }
}

// Plays the last sentence out. A sentence that never queued audio (MP3 without a frame so far) has
// nothing that could end it and is left alone.
void playOut(AudioBufPlayer& player, Device& device, EndsDelegate& delegate) {
  AudioBufPlayerTestPeer peer(player);
  const auto deadline = std::chrono::steady_clock::now() + kHangDeadline;
  while (peer.status() & AudioBufPlayer::PS_ACTIVE) {
    check(std::chrono::steady_clock::now() < deadline, "a sentence with queued audio did not end");
    if (device.playOne()) continue;
    if (fake::queueCount() == 0) return;
    fake::Queue queue = fake::lastQueue();
    const fake::QueueState state = queue.state();
    if (state.disposed || state.enqueued.empty()) return;
    // The real queue's drain outlives a pause and the start that resumes it; the fake's flag does not.
    const bool draining = fake::countCalls("AudioQueueStop q=" + std::to_string(state.id) + " immediate=0") > 0;
    // An empty playData ends a sentence but leaves its queue playing out: a sentence that has not
    // opened a queue of its own yet keeps it, and only its own queue can end it.
    if (!peer.queueIsOfRequestUnderWay()) return;
    check(draining, "every buffer played back but the queue was not stopped");
    const size_t ends = delegate.ends;
    check(queue.reportRunning(false), "the running-state listener did not return");
    // The end is posted: it has arrived once the work queues are idle.
    check(dispatch_wait_until_idle(kHangDeadline.count()) && delegate.ends > ends,
          "a stopped queue did not end the sentence");
    return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The player logs every chunk, far too slow for fuzzing; ABP_FUZZ_LOG=1 shows it all when
  // replaying one input.
  QEN_TTS::set_log_level(std::getenv("ABP_FUZZ_LOG") ? QEN_TTS::QEN_LOG_LEVEL_TRACE : QEN_TTS::QEN_LOG_LEVEL_OFF);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Input input = decode(data, size);
  fake::reset();
  useRealParsers();
  auto delegate = std::make_shared<EndsDelegate>();
  std::shared_ptr<AudioBufPlayer> player = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, false);
  player->start();

  auto client = std::async(std::launch::async, [&] {
    for (const Feed& feed : input.feeds) {
      const AudioBufPlayerError result = feed.append ? player->appendAudioData(feed.bytes, feed.format, delegate, 0.0)
                                                     : player->playData(feed.bytes, feed.format, delegate, 0.0);
      check(mayReturn(feed, result), "a feeding call returned a result it may not return");
    }
  });
  Device device;
  for (const auto& [control, argument] : input.controls) kControls[control](*player, device, argument);

  // The user lets the sentence go on, and the device plays while the client still feeds.
  const auto deadline = std::chrono::steady_clock::now() + kHangDeadline;
  do {
    check(std::chrono::steady_clock::now() < deadline, "the client stayed blocked");
    player->resume();
    if (!device.playOne()) client.wait_for(100us);
  } while (client.wait_for(0s) != std::future_status::ready);
  client.get();
  playOut(*player, device, *delegate);
  player.reset();
  return 0;
}
