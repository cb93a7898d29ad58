// The progress poll after each played buffer: the run-out edge a quarter second before the end of
// the received audio, the rate of the polled queue's own stream, the offset, a new queue's
// position; a failing time query or a poll without a request reports nothing. Polls run on the
// thread that plays a buffer back.
#include "unit/PlayerTestFixture.h"

namespace {

using Lines = std::vector<std::string>;

constexpr uint16_t kPlaying = AudioBufPlayer::PS_ACTIVE | AudioBufPlayer::PS_QUEUE_STARTED;

// Two seconds of PCM at the rate of format.
std::vector<uint8_t> twoSeconds(QEN_TTS::Audio::AudioPlayerAudioFormats format) {
  return testBytes(format == QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM8K ? 32000 : 64000);
}

// The progress poll's reports, in the order the delegate received them.
std::vector<DelegateEvent> pollReports(const RecordingDelegate& delegate) {
  std::vector<DelegateEvent> reports;
  for (const DelegateEvent& event : delegate.events()) {
    if (event.name == "aboutToEnd" || event.name == "playProgressChanged") reports.push_back(event);
  }
  return reports;
}

TEST_F(PlayerTest, PollReportsThePositionAndEndsTheSentenceWithinAQuarterSecondOfTheReceivedAudio) {
  struct Case {
    const char* what;
    Format format;
    double sampleTime, offset;
    bool ends;
    double reported;
    double nextFormatsRate = 0.0;  // stored before the queue for that format opens; 0: none
  };
  const Case cases[] = {
      {"0.25 s left", kPCM16K, 28000, 0.0, false, 1.75},
      {"less than 0.25 s left", kPCM16K, 28001.6, 0.0, true, 1.7501},
      {"offset not in the run-out test", kPCM16K, 28001.6, 3.0, true, 4.7501},
      {"8000 Hz stream", kPCM8K, 8000, 0.0, false, 1.0},
      {"at its own queue's rate while the next format's is stored", kPCM16K, 16000, 0.0, false, 1.0, 8000.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    startOver();
    ASSERT_EQ(play(twoSeconds(c.format), c.format, c.offset), AudioBufPlayerError_OK);
    auto queue = fake::lastQueue();
    queue.setSampleTime(c.sampleTime);
    if (c.nextFormatsRate) peer().storeStreamRate(c.nextFormatsRate);
    // Past the run-out point every poll announces the end again; the bit is already set.
    ASSERT_TRUE(queue.playBack());
    ASSERT_TRUE(queue.playBack());

    EXPECT_EQ(fake::countCalls("AudioQueueStop q=1 immediate=0"), c.ends ? 2u : 0u);
    EXPECT_EQ(peer().status(), kPlaying | (c.ends ? AudioBufPlayer::PS_ENDING : 0));
    Lines names;
    for (const DelegateEvent& report : pollReports(*delegate)) names.push_back(report.name);
    EXPECT_EQ(names, (c.ends ? Lines{"aboutToEnd", "playProgressChanged", "aboutToEnd", "playProgressChanged"}
                             : Lines{"playProgressChanged", "playProgressChanged"}));
    const DelegateEvent progress = pollReports(*delegate).back();
    EXPECT_NEAR(progress.seconds, c.reported, 1e-9);
    EXPECT_EQ(progress.player, player.get());
  }
}

TEST_F(PlayerTest, PollCountsThePositionOfANewQueueFromWhereItTookOverTheSentence) {
  ASSERT_EQ(play(twoSeconds(kPCM16K), kPCM16K), AudioBufPlayerError_OK);
  // A change of format mid-sentence opens a new queue, whose clock starts again at 0.
  const AudioStreamBasicDescription pcm16k{
      16000.0, kAudioFormatLinearPCM, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked, 2, 1, 2, 1, 16, 0};
  ASSERT_EQ(peer().openAudioQueue(pcm16k), noErr);
  ASSERT_EQ(append(twoSeconds(kPCM16K), kPCM16K), AudioBufPlayerError_OK);
  auto queue = fake::lastQueue();
  queue.setSampleTime(28001.6);  // 2 s + 1.7501 s of the 4 s received
  ASSERT_TRUE(queue.playBack());
  EXPECT_EQ(peer().status(), kPlaying | AudioBufPlayer::PS_ENDING);
  EXPECT_NEAR(pollReports(*delegate).back().seconds, 3.7501, 1e-9);
}

TEST_F(PlayerTest, PollReportsNothingWhenTheTimeQueryFailsOrNoRequestIsActive) {
  struct Case { const char* what; std::function<void()> prepare; size_t timeQueries; };
  const Case cases[] = {
      {"time query fails", [] { fake::failCall("AudioQueueGetCurrentTime", kAudioQueueErr_DeviceFailed); }, 1},
      // An empty first chunk ends the request and leaves its queue playing.
      {"no request", [this] { ASSERT_EQ(play({}, kPCM16K), AudioBufPlayerError_OK); }, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    startOver();
    ASSERT_EQ(play(twoSeconds(kPCM16K), kPCM16K), AudioBufPlayerError_OK);
    auto queue = fake::lastQueue();
    queue.setSampleTime(31000);
    c.prepare();
    ASSERT_TRUE(queue.playBack());
    EXPECT_EQ(fake::countCalls("AudioQueueGetCurrentTime"), c.timeQueries);
    EXPECT_EQ(fake::countCalls("AudioQueueStop"), 0u);
    EXPECT_TRUE(pollReports(*delegate).empty());
  }
}

}  // namespace
