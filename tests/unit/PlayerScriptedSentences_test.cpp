// Plan: two sentences end to end on the fake, as a speech client plays them: a PCM sentence and
// then an MP3 one, each fed in several chunks faster than it plays, played back buffer by buffer
// at chosen positions until the queue reports that it has stopped. Checked: the whole sequence of
// delegate events with its lengths and positions, the threads they come on, and the process-wide
// session use back at zero once the 0.8 s hold after each sentence is released.
// Not here: real sound and real MP3 decoding (end-to-end tests); failures (the other unit tests).
#include <thread>

#include "unit/PlayerTestFixture.h"

namespace {

struct Expected {
  const char* name;
  double seconds = 0.0;
};

class PlayerScriptedSentences : public PlayerTest {
 protected:
  void SetUp() override {
    PlayerTest::SetUp();
    endSessionUsesLeftOpen();
    player = AudioBufPlayer::initWithAudioSessionCategory("AVAudioSessionCategoryPlayback", 0, true);
    player->start();
  }

  // Feeds audio in chunks of the given sizes: the first starts the sentence, the others append.
  void feed(Format format, const std::vector<uint8_t>& audio, const std::vector<size_t>& chunks, double offset) {
    size_t at = 0;
    for (size_t size : chunks) {
      const std::span<const uint8_t> chunk(audio.data() + at, size);
      const AudioBufPlayerError result =
          at == 0 ? player->playData(chunk, format, delegate, offset) : append(chunk, format);
      ASSERT_EQ(result, AudioBufPlayerError_OK) << "chunk at " << at;
      at += size;
    }
    ASSERT_EQ(at, audio.size());
  }

  // Plays every buffer back, the queue standing at the given frame after each, then reports the
  // stop that the run-out asked for, and waits for the end of the sentence.
  void playOut(fake::Queue queue, const std::vector<double>& framesAfterEachBuffer, size_t sentence) {
    ASSERT_TRUE(queue.reportRunning(true));
    ASSERT_EQ(queue.state().enqueued.size(), framesAfterEachBuffer.size());
    for (double frames : framesAfterEachBuffer) {
      queue.setSampleTime(frames);
      ASSERT_TRUE(queue.playBack());
    }
    ASSERT_TRUE(queue.reportRunning(false));
    ASSERT_TRUE(delegate->waitFor("PlaybackFinished"));
    // The session is held 0.8 s after each sentence, then released.
    ASSERT_TRUE(fake::waitForCalls("setActive 0", sentence));
    EXPECT_EQ(AudioBufPlayerTestPeer::sessionUsageCount(), 0);
  }

  void expectEvents(const std::vector<Expected>& expected) {
    const std::vector<DelegateEvent> events = delegate->events();
    ASSERT_EQ(events.size(), expected.size()) << testing::PrintToString(delegate->names());
    for (size_t i = 0; i < events.size(); ++i) {
      EXPECT_EQ(events[i].name, expected[i].name) << "event " << i;
      EXPECT_NEAR(events[i].seconds, expected[i].seconds, 1e-9) << "event " << i << " " << events[i].name;
      // Received lengths come on the producer's thread, positions on the queue's callback thread.
      const bool fromProducer = events[i].name == "playerWillStartPlayback" || events[i].name == "updatedTotalLength";
      const bool fromQueue = events[i].name == "playProgressChanged" || events[i].name == "aboutToEnd";
      if (fromProducer || fromQueue) {
        EXPECT_EQ(events[i].thread == std::this_thread::get_id(), fromProducer) << "event " << i;
      }
    }
    delegate->clear();
  }
};

TEST_F(PlayerScriptedSentences, PcmSentenceThenMp3SentencePlayToTheEndWithEveryReport) {
  // PCM at 16 kHz from 1.0 s on: three chunks of 0.2 s, each a full buffer and a quarter of one.
  ASSERT_NO_FATAL_FAILURE(feed(kPCM16K, testBytes(19200), {6400, 6400, 6400}, 1.0));
  ASSERT_NO_FATAL_FAILURE(playOut(fake::queue(1), {2560, 3200, 5760, 6400, 8960, 9600}, 1));
  EXPECT_EQ(fake::countCalls("AudioQueueStop q=1 immediate=0"), 4u);
  expectEvents({{"playerWillStartPlayback"},
                {"updatedTotalLength", 1.2}, {"updatedTotalLength", 1.4}, {"updatedTotalLength", 1.6},
                {"playProgressChanged", 1.16}, {"playProgressChanged", 1.2},
                {"aboutToEnd"}, {"playProgressChanged", 1.36},
                {"aboutToEnd"}, {"playProgressChanged", 1.4},
                {"aboutToEnd"}, {"playProgressChanged", 1.56},
                {"aboutToEnd"}, {"playProgressChanged", 1.6},
                {"PlaybackFinished"}});

  // MP3 from 1.6 s on: 20 packets of 418 bytes (576 frames at 16 kHz) in chunks that cut packets;
  // the parser delivers 4, 5, 5 and 6 of them.
  const std::vector<uint8_t> mp3 = testBytes(20 * 418);
  ASSERT_NO_FATAL_FAILURE(feed(kMP3, mp3, {2000, 2000, 2000, 2360}, 1.6));
  EXPECT_EQ(fake::queue(2).state().allEnqueuedBytes(), mp3);
  ASSERT_NO_FATAL_FAILURE(playOut(fake::queue(2), {4 * 576, 9 * 576, 14 * 576, 20 * 576}, 2));
  EXPECT_EQ(fake::countCalls("AudioQueueStop q=2 immediate=0"), 2u);
  expectEvents({{"playerWillStartPlayback"},
                {"updatedTotalLength", 1.744}, {"updatedTotalLength", 1.924},
                {"updatedTotalLength", 2.104}, {"updatedTotalLength", 2.32},
                {"playProgressChanged", 1.744}, {"playProgressChanged", 1.924},
                {"aboutToEnd"}, {"playProgressChanged", 2.104},
                {"aboutToEnd"}, {"playProgressChanged", 2.32},
                {"PlaybackFinished"}});
}

}  // namespace
