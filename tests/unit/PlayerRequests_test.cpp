// What playData and appendAudioData return and change: refusals before start and for unsupported
// formats; an append to an idle player that starts the request; empty first chunks (the queue left
// open until a stop); a first chunk dropped during a request. Appends refused after the run-out
// point are the end-to-end lead test's.
#include <thread>

#include "unit/PlayerTestFixture.h"

namespace {

using PlayerRequests = PlayerTest;

TEST_F(PlayerRequests, NewPlayerRefusesBothRequestsUntilStarted) {
  auto fresh = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, false);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(fresh->playData(testBytes(100), kPCM8K, delegate, 0.0), AudioBufPlayerError_STOPPED);
    EXPECT_EQ(fresh->appendAudioData(testBytes(100), kMP3, delegate, 0.0), AudioBufPlayerError_STOPPED);
  }
  EXPECT_EQ(AudioBufPlayerTestPeer(fresh).status(), AudioBufPlayer::PS_STOPPED);
  EXPECT_TRUE(fake::calls().empty());
  EXPECT_TRUE(delegate->events().empty());
  fresh->start();
  EXPECT_EQ(fresh->playData(testBytes(100), kPCM8K, delegate, 0.0), AudioBufPlayerError_OK);
}

TEST_F(PlayerRequests, UnsupportedFormatsAreRefusedSilentlyAndRememberedAsTheCurrentOne) {
  using namespace QEN_TTS::Audio;
  for (const Format format : {EAudioPlayerAudioFormat_WAV, EAudioPlayerAudioFormat_ALAW}) {
    for (const bool appending : {false, true}) {
      SCOPED_TRACE(testing::Message() << "format " << format << (appending ? " appended" : " played"));
      startOver();
      EXPECT_EQ(appending ? append(testBytes(100), format) : play(testBytes(100), format),
                AudioBufPlayerError_UNSUPPORTED_FORMAT);
      EXPECT_EQ(peer().status(), 0);
      EXPECT_EQ(peer().currentFormat(), format);
      EXPECT_TRUE(fake::calls().empty());
      EXPECT_TRUE(deliveredEvents().empty());
    }
  }
}

TEST_F(PlayerRequests, AppendToAnIdlePlayerStartsTheRequestWithItsOwnDelegateAndOffset) {
  auto other = std::make_shared<RecordingDelegate>();
  EXPECT_EQ(player->appendAudioData(testBytes(16000), kPCM8K, other, 2.5), AudioBufPlayerError_OK);
  EXPECT_EQ(player->delegate(), other);
  EXPECT_EQ(player->reportAudioLenOffset(), 2.5);
  EXPECT_EQ(other->names(), (std::vector<std::string>{"playerWillStartPlayback", "updatedTotalLength"}));
  EXPECT_DOUBLE_EQ(other->events().back().seconds, 3.5);
}

TEST_F(PlayerRequests, EmptyFirstChunkEndsTheRequestAtOnceOnTheCallersThread) {
  const uint8_t byte = 0;
  for (const bool underWay : {false, true}) {
    for (const std::span<const uint8_t> empty : {std::span<const uint8_t>(), std::span<const uint8_t>(&byte, 0)}) {
      SCOPED_TRACE(testing::Message() << (underWay ? "under way, " : "idle, ") << (empty.data() ? "empty" : "null"));
      startOver();
      if (underWay) {
        ASSERT_EQ(play(testBytes(5120), kPCM8K), AudioBufPlayerError_OK);
      }
      delegate->clear();
      EXPECT_EQ(play(empty, kPCM8K), AudioBufPlayerError_OK);
      const std::vector<std::string> expected =
          underWay ? std::vector<std::string>{"PlaybackFinished"}
                   : std::vector<std::string>{"playerWillStartPlayback", "updatedTotalLength", "PlaybackFinished"};
      EXPECT_EQ(delegate->names(), expected) << "all before the call returned";
      EXPECT_EQ(delegate->events().back().thread, std::this_thread::get_id());
      EXPECT_EQ(peer().status(), 0);
      EXPECT_NE(peer().audioQueue(), nullptr) << "the queue stays open, to play out without reports";
      EXPECT_EQ(fake::countCalls("AudioQueueStop") + fake::countCalls("AudioQueueDispose"), 0u);
      player->stop();
      EXPECT_EQ(fake::calls("AudioQueueDispose"), std::vector<std::string>{"AudioQueueDispose q=1 immediate=1"});
      EXPECT_EQ(peer().audioQueue(), nullptr);
      EXPECT_EQ(player->audioSessionSetCount(), 0);
    }
  }
}

TEST_F(PlayerRequests, FirstChunkDuringARequestIsDroppedWithOk) {
  ASSERT_EQ(play(testBytes(5120), kPCM8K, 1.0), AudioBufPlayerError_OK);
  const uint16_t status = peer().status();
  delegate->clear();
  fake::clearCalls();
  EXPECT_EQ(player->playData(testBytes(3000, 1), kMP3, delegate, 7.0), AudioBufPlayerError_OK);
  EXPECT_EQ(peer().status(), status);
  EXPECT_EQ(player->reportAudioLenOffset(), 1.0);
  EXPECT_EQ(peer().currentFormat(), kPCM8K);
  EXPECT_TRUE(fake::calls().empty());
  EXPECT_TRUE(delegate->events().empty());
}

}  // namespace
