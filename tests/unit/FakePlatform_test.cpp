// Plan: the one promise of the fake that no player test can show going wrong: a test never sees
// the previous test's queues, whose players may still be at work when reset() runs. Without it
// late work of an old player would leave lines in a new test's log now and then. Everything else
// the fake does is exercised by the player tests that rely on it.
#include "fakes/FakePlatform.h"

#include <gtest/gtest.h>

namespace {

AudioQueueRef newQueue() {
  const AudioStreamBasicDescription format{
      16000.0, kAudioFormatLinearPCM, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked, 2, 1, 2, 1, 16, 0};
  AudioQueueRef queue = nullptr;
  EXPECT_EQ(AudioQueueNewOutput(&format, [](void*, AudioQueueRef, AudioQueueBufferRef) {}, nullptr, nullptr, nullptr,
                                0, &queue),
            noErr);
  return queue;
}

TEST(FakePlatform, ResetForgetsThePreviousTestsHandlesAndNeverReusesThem) {
  fake::reset();
  AudioQueueRef old = newQueue();
  fake::reset();
  EXPECT_EQ(AudioQueueStart(old, nullptr), kAudioQueueErr_InvalidQueue);
  EXPECT_TRUE(fake::calls().empty());
  AudioQueueRef fresh = newQueue();
  EXPECT_NE(fresh, old);
  EXPECT_EQ(fake::calls(), (std::vector<std::string>{"AudioQueueNewOutput rate=16000 fmt=lpcm q=1"}));
}

}  // namespace
