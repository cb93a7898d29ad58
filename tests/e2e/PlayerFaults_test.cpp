// The real player on the real platform meets each fault an output queue can have (armed with the
// switches of OutputFaults.h): the sentence ends in a defined state (its error reported, its
// producer back, no hang), and the next sentence plays to its end.
#include <gtest/gtest.h>

#include <future>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "Audio/Platform/OutputQueue/OutputFaults.h"
#include "corpus/Corpus.h"
#include "Diagnostics/qen_log.h"
#include "unit/RecordingDelegate.h"

namespace {

// A second of audio first, so that the producer keeps ahead of a clock 20 times faster than real
// time even under a sanitizer, then 0.1 s a chunk.
constexpr size_t kFirstChunkBytes = 32000;
constexpr size_t kChunkBytes = 3200;

enum class Meanwhile { Nothing, ResumeOnPause, LoseDeviceOnProgress, LoseDeviceDuringAPause };

struct Fault {
  const char* name;
  AudioQueueCall call;
  OSStatus status;
  uint32_t count;
  Meanwhile meanwhile;
  std::string expectedReport;  // the report the fault ends in, or none
  AudioBufPlayerError expectedError = AudioBufPlayerError_OK;
  AudioBufPlayerPauseSource expectedPause = AudioBufPlayerPauseSource_USER;
  double speed = 20.0;  // of the null output the sentence with the fault plays on
};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

class PlayerFaults : public testing::TestWithParam<Fault> {
 protected:
  void SetUp() override {
    ASSERT_EQ(AudioOutputSelect("null", GetParam().speed), noErr);
    player_ = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, false);
    player_->start();
  }
  void TearDown() override {
    AudioQueueFailNextCalls(GetParam().call, noErr, 0);
    player_.reset();
    EXPECT_TRUE(AudioQueueWaitForReleases(30.0));
  }

  // On a thread of its own, as a speech engine feeds.
  std::future<void> feed(const std::shared_ptr<RecordingDelegate>& delegate) {
    return std::async(std::launch::async, [this, delegate] {
      for (size_t from = 0; from < speech_.size();) {
        const size_t size = std::min(from == 0 ? kFirstChunkBytes : kChunkBytes, speech_.size() - from);
        const std::span<const uint8_t> chunk(speech_.data() + from, size);
        const auto format = QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K;
        from == 0 ? player_->playData(chunk, format, delegate, 0.0)
                  : player_->appendAudioData(chunk, format, delegate, 0.0);
        from += size;
      }
    });
  }

  const std::vector<uint8_t> speech_ = corpus::ReadCorpusFile("fox_s16le_16000.pcm");
  std::shared_ptr<AudioBufPlayer> player_;
};

TEST_P(PlayerFaults, EndsInADefinedStateAndTheNextSentencePlays) {
  const Fault& fault = GetParam();
  AudioQueueFailNextCalls(fault.call, fault.status, fault.count);
  auto faulty = std::make_shared<RecordingDelegate>();
  std::future<void> producer = feed(faulty);
  if (fault.meanwhile == Meanwhile::ResumeOnPause) {
    ASSERT_TRUE(faulty->waitFor("PlayerWasPaused"));
    EXPECT_EQ(faulty->events().back().source, fault.expectedPause);
    player_->resume();
  } else if (fault.meanwhile == Meanwhile::LoseDeviceOnProgress ||
             fault.meanwhile == Meanwhile::LoseDeviceDuringAPause) {
    ASSERT_TRUE(faulty->waitFor("playProgressChanged"));
    const bool pausing = fault.meanwhile == Meanwhile::LoseDeviceDuringAPause;
    if (pausing) player_->pause();
    ASSERT_EQ(AudioQueueLoseDevice(AudioOutputNewestQueue()), noErr);
    if (pausing) player_->resume();
  }
  ASSERT_EQ(producer.wait_for(RecordingDelegate::kWaitTimeout), std::future_status::ready) << "the producer hangs";
  if (!fault.expectedReport.empty()) {
    ASSERT_TRUE(faulty->waitFor(fault.expectedReport));
  }
  if (fault.expectedError != AudioBufPlayerError_OK) {
    ASSERT_TRUE(faulty->waitFor("PlayerError"));
    const std::vector<DelegateEvent> events = faulty->events();
    // A buffer enqueued after the device is gone may fail first.
    const auto error = std::find_if(events.begin(), events.end(), [&](auto& e) {
      return e.name == "PlayerError" && e.error == fault.expectedError;
    });
    ASSERT_NE(error, events.end());
    EXPECT_NE(error->description.find(FourCCText(fault.status).data()), std::string::npos) << error->description;
  }
  player_->stop();
  player_->start();
  AudioQueueFailNextCalls(fault.call, noErr, 0);
  ASSERT_EQ(AudioOutputSelect("null", 20.0), noErr);
  auto next = std::make_shared<RecordingDelegate>();
  std::future<void> nextProducer = feed(next);
  ASSERT_TRUE(next->waitFor("PlaybackFinished"));
  nextProducer.wait();
  EXPECT_EQ(next->count("PlayerError"), 0u);
  double lastPosition = 0.0;
  for (const DelegateEvent& event : next->events()) {
    if (event.name == "playProgressChanged") lastPosition = event.seconds;
  }
  EXPECT_NEAR(lastPosition, double(speech_.size()) / 32000.0, 0.01) << "the next sentence did not play whole";
}

INSTANTIATE_TEST_SUITE_P(
    EachFault, PlayerFaults,
    testing::Values(
        Fault{"OpenFails", AudioQueueCall::NewOutput, kAudioQueueErr_DeviceFailed, 1, Meanwhile::Nothing, "",
              AudioBufPlayerError_FAILED_OPEN_DEVICE},
        Fault{"FirstAllocationFails", AudioQueueCall::AllocateBuffer, kAudioQueueErr_OutOfMemory, 1,
              Meanwhile::Nothing, "", AudioBufPlayerError_ALLOC_FAIL},
        Fault{"OneEnqueueFails", AudioQueueCall::EnqueueBuffer, kAudioQueueErr_InvalidParameter, 1, Meanwhile::Nothing,
              "PlaybackFinished", AudioBufPlayerError_QUEUE_FAIL},
        Fault{"EveryEnqueueFails", AudioQueueCall::EnqueueBuffer, kAudioQueueErr_DeviceFailed, 1000,
              Meanwhile::Nothing, "", AudioBufPlayerError_QUEUE_FAIL},
        Fault{"StartFails", AudioQueueCall::Start, kAudioQueueErr_DeviceFailed, 1, Meanwhile::Nothing,
              "PlaybackFinished", AudioBufPlayerError_START_PLAYBACK_FAILED},
        Fault{"StartRefusedForAnInterruption", AudioQueueCall::Start, kAudioSessionErr_Interrupted, 1,
              Meanwhile::ResumeOnPause, "PlaybackFinished", AudioBufPlayerError_OK,
              AudioBufPlayerPauseSource_INTERRUPT},
        Fault{"StartRefusedInTheBackground", AudioQueueCall::Start, kAudioSessionErr_InBackground, 1,
              Meanwhile::ResumeOnPause, "PlaybackFinished", AudioBufPlayerError_OK,
              AudioBufPlayerPauseSource_BACKGROUND},
        // In real time, so that the sentence is still playing when its device goes.
        Fault{"DeviceLostWhilePlaying", AudioQueueCall::Start, noErr, 0, Meanwhile::LoseDeviceOnProgress,
              "PlaybackFinished", AudioBufPlayerError_OK, AudioBufPlayerPauseSource_USER, 1.0},
        // The restart fails for good; the stop the loss caused ends the sentence.
        Fault{"DeviceLostDuringAPause", AudioQueueCall::Start, kAudioQueueErr_DeviceFailed, 0,
              Meanwhile::LoseDeviceDuringAPause, "PlaybackFinished", AudioBufPlayerError_START_PLAYBACK_FAILED,
              AudioBufPlayerPauseSource_USER, 1.0}),
    [](const testing::TestParamInfo<Fault>& info) { return std::string(info.param.name); });

}  // namespace
