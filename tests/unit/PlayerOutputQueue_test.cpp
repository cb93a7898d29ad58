// Opening the output queue: a failed buffer allocation keeps the slots allocated before it and the
// opening goes on. That a queue opened mid-sentence lifts the wait for the old one's buffers is the
// player fuzzer's rate-change regression.
#include "unit/PlayerTestFixture.h"

namespace {

AudioStreamBasicDescription pcm16k() {
  return AudioStreamBasicDescription{
      16000.0, kAudioFormatLinearPCM, kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked, 2, 1, 2, 1, 16, 0};
}

TEST_F(PlayerTest, FailedAllocationOfSlot5KeepsSlots0To4AndOpensAnyway) {
  player->setDelegate(delegate);
  fake::failCall("AudioQueueAllocateBuffer", kAudioQueueErr_OutOfMemory, 6);
  EXPECT_EQ(peer().openAudioQueue(pcm16k()), noErr);

  EXPECT_EQ(fake::countCalls("AudioQueueAllocateBuffer"), 6u);
  EXPECT_EQ(fake::countCalls("AudioQueueAddPropertyListener q=1"), 1u);
  const auto free = peer().freeBuffers();
  for (size_t slot = 0; slot < AudioBufPlayer::kNumberOfBuffers; ++slot) {
    EXPECT_EQ(free[slot], slot < 5) << "slot " << slot;
  }
  const std::vector<DelegateEvent> events = deliveredEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].error, AudioBufPlayerError_ALLOC_FAIL);
  EXPECT_EQ(events[0].description,
            "AudioQueueAllocateBuffer returned error " + std::to_string(kAudioQueueErr_OutOfMemory) + " (qmem)");
}

}  // namespace
