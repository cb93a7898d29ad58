// Plan: opening a sentence's stream and feeding it. The PCM stream description and request-start
// lines; the parser's lifetime (closed by the next MP3 opening or the player's end, its handle
// kept by PCM sentences); the parse status lines and the single error of a rejected chunk; a
// parser that cannot be opened. The MP3 format on "redy": the property lines, the description
// block, a failed read, a raised exception, a report
// after the request ended, and a second report that reopens the queue.
// Not here: real MP3 parsing (platform tests); what the queue does with the format (queue tests).
#include "Audio/Platform/PlatformException.h"
#include "unit/PlayerTestFixture.h"

namespace {

using PlayerStream = PlayerTest;

// Whether the log holds an ERROR line of the format handling whose message is message with
// "{line}" replaced by the source line in the line's own prefix.
bool hasFormatErrorLine(const std::string& log, const std::string& message) {
  const std::string head = "[ERROR][AudioBufPlayer_StreamFormat.cpp:";
  for (size_t at = log.find(head); at != std::string::npos; at = log.find(head, at + 1)) {
    const size_t numberAt = at + head.size();
    const size_t close = log.find(']', numberAt);
    if (close == std::string::npos) break;
    std::string expected = message;
    expected.replace(expected.find("{line}"), 6, log.substr(numberAt, close - numberAt));
    if (log.compare(close + 1, expected.size(), expected) == 0) return true;
  }
  return false;
}

// The full path of the format handling's source, as the compiler names it: beside this file's.
std::string formatHandlingSource() {
  const std::string self = __FILE__;
  return self.substr(0, self.rfind("tests/unit/")) + "core/Audio/Players/Impl_iOS/AudioBufPlayer_StreamFormat.cpp";
}

std::string parseError(OSStatus status, const char* text) {
  return "AudioFileStreamParseBytes returned error " + std::to_string(status) + " (" + text + ")";
}

TEST_F(PlayerStream, PcmStreamIsSixteenBitSignedLittleEndianMonoAtItsRate) {
  const struct {
    Format format;
    double rate;
    const char* line;
  } cases[] = {{kPCM8K, 8000.0, "]Stream type PCM8\n"}, {kPCM16K, 16000.0, "]Stream type PCM16\n"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    startOver();
    CapturedLog log;
    ASSERT_EQ(play(testBytes(100), c.format), AudioBufPlayerError_OK);
    const AudioStreamBasicDescription format = fake::lastQueue().state().format;
    EXPECT_EQ(format.mSampleRate, c.rate);
    EXPECT_EQ(format.mFormatID, kAudioFormatLinearPCM);
    EXPECT_EQ(format.mFormatFlags, 12u);
    EXPECT_EQ(format.mBytesPerPacket, 2u);
    EXPECT_EQ(format.mFramesPerPacket, 1u);
    EXPECT_EQ(format.mBytesPerFrame, 2u);
    EXPECT_EQ(format.mChannelsPerFrame, 1u);
    EXPECT_EQ(format.mBitsPerChannel, 16u);
    EXPECT_EQ(format.mReserved, 0u);
    EXPECT_EQ(peer().samplesPerPacket(), 1u);
    EXPECT_EQ(peer().sampleRate(), c.rate);
    EXPECT_EQ(log.count(c.line), 1u);
  }
}

TEST_F(PlayerStream, NextMp3OpeningClosesThePreviousParserWithOneLineWhateverTheCloseSays) {
  for (const OSStatus closed : {noErr, kAudioFileStreamError_InvalidStream}) {
    SCOPED_TRACE(closed);
    startOver();
    CapturedLog log;
    ASSERT_EQ(play(testBytes(1000), kMP3), AudioBufPlayerError_OK);
    player->stop();
    player->start();
    if (closed) fake::failCall("AudioFileStreamClose", closed);
    ASSERT_EQ(play(testBytes(1000), kMP3), AudioBufPlayerError_OK);
    EXPECT_EQ(fake::countCalls("AudioFileStreamClose s=1"), 1u);
    EXPECT_EQ(log.count("]audio file stream close: "), 1u);
    EXPECT_EQ(log.count("]audio file stream close: " + std::to_string(closed) + "\n"), 1u);
    EXPECT_EQ(fake::lastQueue().state().enqueued.size(), 1u) << "the new parser s=2 feeds the new queue";
  }
}

TEST_F(PlayerStream, PcmSentenceAfterAnMp3OneLeavesTheParserOpenUntilThePlayerGoes) {
  ASSERT_EQ(play(testBytes(1000), kMP3), AudioBufPlayerError_OK);
  player->stop();
  player->start();
  const AudioFileStreamID parser = peer().audioFileStream();
  ASSERT_EQ(play(testBytes(5120), kPCM16K), AudioBufPlayerError_OK);
  EXPECT_EQ(fake::countCalls("AudioFileStreamClose"), 0u);
  EXPECT_EQ(peer().audioFileStream(), parser);
  EXPECT_EQ(fake::lastQueue().state().allEnqueuedBytes(), testBytes(5120));
  player.reset();
  EXPECT_TRUE(fake::waitForCall("AudioFileStreamClose s=1"));
}

TEST_F(PlayerStream, EveryMp3ChunkWritesOneParseLineAndARejectedOneTwoWithOneError) {
  CapturedLog log;
  ASSERT_EQ(play(testBytes(1000), kMP3), AudioBufPlayerError_OK);
  ASSERT_EQ(append(testBytes(1000), kMP3), AudioBufPlayerError_OK);
  fake::failCall("AudioFileStreamParseBytes", kAudioFileStreamError_InvalidFile);
  EXPECT_EQ(append(testBytes(1000), kMP3), AudioBufPlayerError_FAILED_PARSE_STREAM);
  EXPECT_EQ(log.count("]parse err: 0\n"), 2u);
  EXPECT_EQ(log.count("]parse err: " + std::to_string(kAudioFileStreamError_InvalidFile) + "\n"), 2u);
  EXPECT_TRUE(peer().status() & AudioBufPlayer::PS_ACTIVE) << "a failed append leaves the request going";

  const std::vector<DelegateEvent> errors = eventsNamed(deliveredEvents(), "PlayerError");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].error, AudioBufPlayerError_FAILED_PARSE_STREAM);
  EXPECT_EQ(errors[0].description, parseError(kAudioFileStreamError_InvalidFile, "dta?"));
}

TEST_F(PlayerStream, ParserThatCannotBeOpenedFailsTheRequestWithoutAReport) {
  fake::failCall("AudioFileStreamOpen", kAudioFileStreamError_UnsupportedFileType);
  CapturedLog log;
  EXPECT_EQ(play(testBytes(1000), kMP3), AudioBufPlayerError_FAILED_INIT_STREAM);
  EXPECT_EQ(log.count("]Error init audio stream: " + std::to_string(kAudioFileStreamError_UnsupportedFileType)),
            1u);
  EXPECT_EQ(peer().status(), 0);
  EXPECT_EQ(delegate->names(), std::vector<std::string>{"playerWillStartPlayback"});
  EXPECT_TRUE(eventsNamed(deliveredEvents(), "PlayerError").empty());
}

TEST_F(PlayerStream, ReadyReportLogsThePropertiesAndTheFormatBlockAndOpensTheQueueWithIt) {
  const AudioStreamBasicDescription format{22050.0, kAudioFormatMPEGLayer3, 5, 4, 1152, 3, 2, 16, 7};
  fake::setParserDataFormat(format);
  CapturedLog log;
  ASSERT_EQ(play(testBytes(100), kMP3), AudioBufPlayerError_OK);
  const std::string pad(32, ' ');
  const std::string block = "]\n\t\t\t\t\t\t++++++++++++ ASBD ++++++++++++\n" +  //
                            pad + "ASBD.bitsPerChannel: 16\n" + pad + "ASBD.mBytesPerFrame: 3\n" +  //
                            pad + "ASBD.mBytesPerPacket: 4\n" + pad + "ASBD.mChannelsPerFrame: 2\n" +  //
                            pad + "ASBD.mFormatFlags: 5\n" + pad + "ASBD.mFormatID: " +
                            std::to_string(kAudioFormatMPEGLayer3) + "\n" +  //
                            pad + "ASBD.mFramesPerPacket: 1152\n" + pad + "ASBD.mReserved: 7\n" +  //
                            pad + "ASBD.mSampleRate: 22050.000000\n";
  EXPECT_EQ(log.count(block), 1u) << log.text();
  EXPECT_EQ(log.count("]found property 'dfmt'\n\n"), 1u);
  EXPECT_EQ(log.count("]found property 'redy'\n\n"), 1u);
  EXPECT_EQ(log.count("]Stream type MP3\n"), 1u);
  EXPECT_EQ(fake::lastQueue().state().format.mSampleRate, 22050.0);
}

TEST_F(PlayerStream, FailedFormatReadEndsTheSentenceOnceAndLaterReportsAreIgnored) {
  ASSERT_EQ(play(testBytes(100), kPCM8K), AudioBufPlayerError_OK);  // counters of a previous sentence
  player->stop();
  player->start();
  fake::failCall("AudioFileStreamGetProperty", kAudioFileStreamError_DataUnavailable);
  fake::setParserBehaviour([](fake::ParseContext& parse) {
    parse.reportProperty(kAudioFileStreamProperty_ReadyToProducePackets);  // fails: the request ends
    parse.reportProperty(kAudioFileStreamProperty_ReadyToProducePackets);  // no request any more
    parse.deliverPackets(parse.bytes(), std::vector<AudioStreamPacketDescription>{{0, 0, 418}});
    return noErr;
  });
  CapturedLog log;
  EXPECT_EQ(play(testBytes(418), kMP3), AudioBufPlayerError_OK) << "the parser itself did not fail";

  EXPECT_EQ(log.count("]found property 'redy'"), 1u);
  EXPECT_TRUE(hasFormatErrorLine(
      log.text(), "Err at -[AudioBufPlayer AudioPropertyFoundForStream:propertyID:Flags:] {line}\n"))
      << log.text();
  EXPECT_EQ(fake::countCalls("AudioFileStreamGetProperty"), 1u);
  EXPECT_EQ(peer().samplesPerPacket(), 1u);
  EXPECT_EQ(peer().sampleRate(), 8000.0);
  EXPECT_EQ(peer().receivedSamples(), 0u);
  EXPECT_EQ(peer().status(), 0);
  const std::vector<DelegateEvent> errors = eventsNamed(deliveredEvents(), "PlayerError");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].error, AudioBufPlayerError_FAILED_GET_STREAM_PROPERTIES);
  EXPECT_EQ(errors[0].description, parseError(kAudioFileStreamError_DataUnavailable, "more"));
}

TEST_F(PlayerStream, ExceptionWhileReadingTheFormatEndsTheSentenceWithFailedOpenDevice) {
  fake::raiseOnCall("AudioFileStreamGetProperty", PlatformException("no format today"));
  CapturedLog log;
  EXPECT_EQ(play(testBytes(1000), kMP3), AudioBufPlayerError_OK);

  const std::string message = formatHandlingSource() + " {line} Audio init exception: no format today\n";
  EXPECT_TRUE(hasFormatErrorLine(log.text(), message)) << log.text();
  EXPECT_EQ(peer().status(), 0);
  EXPECT_EQ(peer().audioQueue(), nullptr);
  EXPECT_EQ(peer().receivedSamples(), 0u);
  const std::vector<DelegateEvent> errors = eventsNamed(deliveredEvents(), "PlayerError");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].error, AudioBufPlayerError_FAILED_OPEN_DEVICE);
  EXPECT_EQ(errors[0].description, "Exception while init audio: no format today");
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
