// Plan: every sentence that began gets exactly one end its client sees. A queue left playing out
// by a sentence that an empty first chunk ended stops without a word, whether or not the next
// sentence (MP3, no frame yet, so still on that queue) is under way; a sentence that cannot go on
// ends at once, gives back its queue, and the next chunk starts a new one: with no buffer left,
// by one PlaybackFinished after the error; with no queue, or a stream that failed before any
// audio, by the error itself; a stop whose running state cannot be read still ends the sentence.
// Not here: the end of a sentence that plays out (playback tests) and the empty first chunk
// (request tests). Posted work is awaited on the work queue before the events are counted.
#include "Audio/Platform/Dispatch.h"
#include "unit/PlayerTestFixture.h"

namespace {

constexpr size_t kBuffer = AudioBufPlayer::kBufferByteSize;

[[nodiscard]] bool postedWorkDone() { return dispatch_wait_until_idle(fake::kWaitTimeout.count()); }

size_t countNamed(const std::vector<DelegateEvent>& events, std::string_view name) {
  return eventsNamed(events, name).size();
}

TEST_F(PlayerTest, QueueLeftPlayingOutByAnEndedSentenceEndsNoOtherSentence) {
  for (const bool nextSentence : {false, true}) {
    SCOPED_TRACE(nextSentence ? "next sentence under way" : "no next sentence");
    startOver();
    // The next sentence's first chunk holds no frame yet (a tag, say): it opens no queue of its own.
    fake::setParserBehaviour(
        [](fake::ParseContext& parse) { return parse.call() == 1 ? noErr : parse.parseByDefault(); });
    ASSERT_EQ(play(testBytes(16000), kPCM16K), AudioBufPlayerError_OK);  // 0.5 s in four buffers
    fake::Queue first = fake::queue(1);
    first.setSampleTime(6000);  // 0.375 s played: the queue is told to stop after what it holds
    ASSERT_TRUE(first.playBack());
    ASSERT_EQ(play({}, kPCM16K), AudioBufPlayerError_OK);  // the client ends the sentence
    if (nextSentence) {
      ASSERT_EQ(play(testBytes(100), kMP3), AudioBufPlayerError_OK);
    }
    ASSERT_TRUE(first.playBackAll());
    ASSERT_TRUE(first.reportRunning(false));
    ASSERT_TRUE(postedWorkDone());

    EXPECT_EQ(peer().status(), nextSentence ? AudioBufPlayer::PS_ACTIVE : 0);
    if (nextSentence) {
      EXPECT_EQ(append(testBytes(836), kMP3), AudioBufPlayerError_OK);
      EXPECT_EQ(fake::queue(2).state().enqueued.size(), 1u) << "the sentence goes on with its own parser";
    }
    const std::vector<DelegateEvent> events = deliveredEvents();
    EXPECT_EQ(countNamed(events, "playerWillStartPlayback"), nextSentence ? 2u : 1u);
    EXPECT_EQ(countNamed(events, "PlaybackFinished"), 1u);
  }
}

TEST_F(PlayerTest, SentenceThatCannotGoOnEndsAtOnceWithOneEnd) {
  struct Case {
    const char* what;
    std::function<AudioBufPlayerError()> feed;  // returns what the call that ends the sentence returns
    AudioBufPlayerError returned, reported;
    Format format;
    size_t finished;  // 1: PlaybackFinished follows the error; 0: the error is the end
  };
  const Case cases[] = {
      {"no queue buffer allocated",
       [&] {
         fake::failCall("AudioQueueAllocateBuffer", kAudioQueueErr_OutOfMemory);
         return play(testBytes(kBuffer), kPCM16K);
       },
       AudioBufPlayerError_OK, AudioBufPlayerError_ALLOC_FAIL, kPCM16K, 1},
      {"every enqueue failed",
       [&] {
         for (int n = 1; n <= int(AudioBufPlayer::kNumberOfBuffers); ++n) {
           fake::failCall("AudioQueueEnqueueBuffer", kAudioQueueErr_InvalidBuffer, n);
         }
         return play(testBytes(AudioBufPlayer::kNumberOfBuffers * kBuffer), kPCM16K);
       },
       AudioBufPlayerError_OK, AudioBufPlayerError_QUEUE_FAIL, kPCM16K, 1},
      {"PCM queue not opened",
       [&] {
         fake::failCall("AudioQueueNewOutput", kAudioQueueErr_DeviceFailed);
         return play(testBytes(kBuffer), kPCM8K);
       },
       AudioBufPlayerError_OK, AudioBufPlayerError_FAILED_OPEN_DEVICE, kPCM8K, 0},
      {"MP3 stream failed on an append before any audio",
       [&] {
         EXPECT_EQ(play(testBytes(100), kMP3), AudioBufPlayerError_OK);  // the format, not a packet yet
         fake::failCall("AudioFileStreamParseBytes", kAudioFileStreamError_InvalidFile);
         return append(testBytes(100), kMP3);
       },
       AudioBufPlayerError_FAILED_PARSE_STREAM, AudioBufPlayerError_FAILED_PARSE_STREAM, kMP3, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    startOver();
    EXPECT_EQ(c.feed(), c.returned);
    EXPECT_EQ(peer().status(), 0);
    EXPECT_EQ(peer().audioQueue(), nullptr) << "nothing left open";
    EXPECT_EQ(player->audioSessionSetCount(), 0);
    ASSERT_TRUE(postedWorkDone());
    EXPECT_EQ(delegate->count("PlaybackFinished"), c.finished);
    EXPECT_EQ(delegate->count("PlayerError"), c.reported == AudioBufPlayerError_QUEUE_FAIL ? 20u : 1u);
    for (const DelegateEvent& error : eventsNamed(delegate->events(), "PlayerError")) {
      EXPECT_EQ(error.error, c.reported);
    }

    EXPECT_EQ(append(testBytes(kBuffer), c.format), AudioBufPlayerError_OK);
    EXPECT_EQ(delegate->count("playerWillStartPlayback"), 2u) << "the next chunk starts a new sentence";
  }
}

TEST_F(PlayerTest, StopWhoseRunningStateCannotBeReadStillEndsTheSentence) {
  ASSERT_EQ(play(testBytes(kBuffer), kPCM16K), AudioBufPlayerError_OK);
  fake::failCall("AudioQueueGetProperty", kAudioQueueErr_InvalidQueue);
  CapturedLog log;
  ASSERT_TRUE(fake::lastQueue().reportRunning(false));
  ASSERT_TRUE(postedWorkDone());
  EXPECT_EQ(peer().status(), 0);
  EXPECT_EQ(log.countLines("DEBUG", "AudioQueueGetProperty(IsRunning) returned: " +
                                        std::to_string(kAudioQueueErr_InvalidQueue) + " taken as stopped"),
            1u);
  EXPECT_EQ(countNamed(deliveredEvents(), "PlaybackFinished"), 1u);
}

}  // namespace
