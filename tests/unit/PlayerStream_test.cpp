// Opening a sentence's stream: the parser's lifetime (closed by the next MP3 opening or the player's
// end, its handle kept by PCM sentences); a parser that cannot be opened. The MP3 format on "redy":
// a read that fails or raises, a report after the request ended, and a second report that reopens
// the queue.
#include "Audio/Platform/PlatformException.h"
#include "unit/PlayerTestFixture.h"

namespace {

using PlayerStream = PlayerTest;

TEST_F(PlayerStream, ParserLivesUntilTheNextMp3OpeningOrThePlayersEndWhateverTheCloseSays) {
  for (const OSStatus closed : {noErr, kAudioFileStreamError_InvalidStream}) {
    SCOPED_TRACE(closed);
    startOver();
    CapturedLog log;
    for (const Format format : {kMP3, kPCM16K, kMP3}) {
      if (format == kMP3 && closed) fake::failCall("AudioFileStreamClose", closed);
      ASSERT_EQ(play(testBytes(1000), format), AudioBufPlayerError_OK);
      player->stop();
      player->start();
    }
    const std::string closing = "AudioFileStreamClose s=1" + std::string(closed ? " -> stm?" : "");
    EXPECT_EQ(callsWith({"AudioFileStreamOpen", "AudioFileStreamClose", "AudioQueueNewOutput"}),
              (std::vector<std::string>{"AudioFileStreamOpen", "AudioQueueNewOutput", "AudioQueueNewOutput", closing,
                                        "AudioFileStreamOpen", "AudioQueueNewOutput"}));
    EXPECT_EQ(log.count("]audio file stream close: " + std::to_string(closed) + "\n"), 1u);
    EXPECT_EQ(fake::queue(3).state().enqueued.size(), 1u) << "the new parser s=2 feeds the new queue";
    player.reset();
    EXPECT_TRUE(fake::waitForCall("AudioFileStreamClose s=2"));
  }
}

TEST_F(PlayerStream, ParserThatCannotBeOpenedFailsTheRequestWithoutAReport) {
  fake::failCall("AudioFileStreamOpen", kAudioFileStreamError_UnsupportedFileType);
  CapturedLog log;
  EXPECT_EQ(play(testBytes(1000), kMP3), AudioBufPlayerError_FAILED_INIT_STREAM);
  EXPECT_EQ(log.count("]Error init audio stream: " + std::to_string(kAudioFileStreamError_UnsupportedFileType)), 1u);
  EXPECT_EQ(peer().status(), 0);
  EXPECT_EQ(delegate->names(), std::vector<std::string>{"playerWillStartPlayback"});
  EXPECT_TRUE(eventsNamed(deliveredEvents(), "PlayerError").empty());
}

TEST_F(PlayerStream, FormatThatCannotBeReadEndsTheSentenceOnceAndLaterReportsAreIgnored) {
  struct Case {
    const char* what;
    std::function<void()> fail;
    std::string logged;
    AudioBufPlayerError error;
    std::string description;
  };
  const Case cases[] = {
      {"read fails", [] { fake::failCall("AudioFileStreamGetProperty", kAudioFileStreamError_DataUnavailable); },
       "]Err at -[AudioBufPlayer AudioPropertyFoundForStream:propertyID:Flags:] ",
       AudioBufPlayerError_FAILED_GET_STREAM_PROPERTIES,
       "AudioFileStreamParseBytes returned error " + std::to_string(kAudioFileStreamError_DataUnavailable) + " (more)"},
      {"read raises", [] { fake::raiseOnCall("AudioFileStreamGetProperty", PlatformException("no format today")); },
       " Audio init exception: no format today\n", AudioBufPlayerError_FAILED_OPEN_DEVICE,
       "Exception while init audio: no format today"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    startOver();
    ASSERT_EQ(play(testBytes(100), kPCM8K), AudioBufPlayerError_OK);  // counters of a previous sentence
    player->stop();
    player->start();
    c.fail();
    fake::setParserBehaviour([](fake::ParseContext& parse) {
      parse.reportProperty(kAudioFileStreamProperty_ReadyToProducePackets);  // fails: the request ends
      parse.reportProperty(kAudioFileStreamProperty_ReadyToProducePackets);  // no request any more
      parse.deliverPackets(parse.bytes(), std::vector<AudioStreamPacketDescription>{{0, 0, 418}});
      return noErr;
    });
    CapturedLog log;
    EXPECT_EQ(play(testBytes(418), kMP3), AudioBufPlayerError_OK) << "the parser itself did not fail";

    EXPECT_EQ(log.count(c.logged), 1u);
    EXPECT_EQ(fake::countCalls("AudioFileStreamGetProperty"), 1u);
    EXPECT_EQ(peer().samplesPerPacket(), 1u);
    EXPECT_EQ(peer().sampleRate(), 8000.0);
    EXPECT_EQ(peer().receivedSamples(), 0u);
    EXPECT_EQ(peer().status(), 0);
    const std::vector<DelegateEvent> errors = eventsNamed(deliveredEvents(), "PlayerError");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].error, c.error);
    EXPECT_EQ(errors[0].description, c.description);
  }
}

TEST_F(PlayerStream, SecondReadyReportReopensTheQueueWithTheNewFormat) {
  fake::setParserBehaviour([](fake::ParseContext& parse) {
    if (parse.call() == 2) parse.reportProperty(kAudioFileStreamProperty_ReadyToProducePackets);
    return parse.parseByDefault();
  });
  ASSERT_EQ(play(testBytes(836), kMP3), AudioBufPlayerError_OK);
  AudioStreamBasicDescription faster = fake::defaultMp3Format();
  faster.mSampleRate = 24000.0;
  fake::setParserDataFormat(faster);
  ASSERT_EQ(append(testBytes(836), kMP3), AudioBufPlayerError_OK);

  EXPECT_EQ(fake::calls("AudioQueueDispose"), std::vector<std::string>{"AudioQueueDispose q=1 immediate=1"});
  const fake::QueueState reopened = fake::queue(2).state();
  EXPECT_EQ(reopened.format.mSampleRate, 24000.0);
  EXPECT_TRUE(reopened.started);
  EXPECT_EQ(reopened.enqueued.size(), 1u);
  EXPECT_EQ(peer().sampleRate(), 24000.0);
  EXPECT_EQ(player->audioSessionSetCount(), 1) << "the first queue's session use ended with it";
}

}  // namespace
