// The shared session: the process-wide activation count, a player's uses (category before
// activation, subscribed while in use), the update operations idle and in use, and the management
// switch. The remote-control task runs later on the main queue, so its
// order against the session call cannot be seen; that it was posted before the call shows when
// the call raises.
#include <algorithm>

#include "Audio/Platform/PlatformException.h"
#include "unit/PlayerTestFixture.h"

namespace {

using Peer = AudioBufPlayerTestPeer;
using Lines = std::vector<std::string>;

const Lines kActivation = {"beginReceivingRemoteControlEvents", "setActive 1 options=1"};
const Lines kDeactivation = {"endReceivingRemoteControlEvents", "setActive 0 options=1"};

class PlayerSessionTest : public PlayerTest {
 protected:
  void SetUp() override {
    PlayerTest::SetUp();
    endSessionUsesLeftOpen();
    takeSessionCalls();  // remote-control tasks of earlier tests may still be on the main queue
  }

  // The calls since the last look, sorted, once every remote-control task posted so far has run.
  static Lines takeSessionCalls() {
    EXPECT_TRUE(fake::waitForMainQueue());
    Lines lines = fake::calls();
    fake::clearCalls();
    std::sort(lines.begin(), lines.end());
    return lines;
  }
};

TEST_F(PlayerSessionTest, OnlyTheFirstBeginAndTheLastEndOfManagingCallsTouchThePlatformEvenIfItRaises) {
  struct Step { bool activate, manage; int32_t count; Lines calls; bool raises = false; };
  const std::string logged = "NSLog Exception while modify audio session status: busy";
  const Step steps[] = {
      // Two managing players A and B: A begins, B begins, A ends, B ends.
      {true, true, 1, kActivation}, {true, true, 2, {}}, {false, true, 1, {}}, {false, true, 0, kDeactivation},
      // An end at 0 stays there, and deactivates again when managing.
      {false, true, 0, kDeactivation}, {false, false, 0, {}},
      // Without management the count moves alike and the session is left to the others.
      {true, false, 1, {}}, {true, true, 2, {}}, {false, false, 1, {}}, {false, true, 0, kDeactivation},
      // A session that raises is logged; the count moves and the remote-control task still runs.
      {true, true, 1, {logged, kActivation[0], "setActive 1 options=1 -> raises"}, true},
      {false, true, 0, {logged, kDeactivation[0], "setActive 0 options=1 -> raises"}, true}};
  for (size_t i = 0; i < std::size(steps); ++i) {
    SCOPED_TRACE(testing::Message() << "step " << i);
    if (steps[i].raises) fake::raiseOnCall("setActive", PlatformException("busy"));
    EXPECT_NO_THROW(AudioBufPlayer::SetAudioSessionActivationStatus(steps[i].activate, steps[i].manage));
    EXPECT_EQ(Peer::sessionUsageCount(), steps[i].count);
    EXPECT_EQ(takeSessionCalls(), steps[i].calls);
  }
}

TEST_F(PlayerSessionTest, OnlyAPlayersFirstUseAndLastReleaseAct) {
  struct Case { std::optional<std::string> category; bool manage; Lines sets; };
  const Case cases[] = {{"Playback", true, {"setCategory Playback options=3", "setActive 1 options=1"}},
                        {"", true, {"setCategory  options=3", "setActive 1 options=1"}},
                        {std::nullopt, true, {"setActive 1 options=1"}},
                        {"Playback", false, {}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.category.value_or("(absent)") << (c.manage ? " managed" : ""));
    const auto p = AudioBufPlayer::initWithAudioSessionCategory(c.category, 3, c.manage);
    Peer peer(p);
    peer.setOrResetAVSession(false);
    EXPECT_EQ(fake::calls("set"), c.sets);
    Lines opening = c.sets;
    if (c.manage) opening.push_back(kActivation[0]);
    std::sort(opening.begin(), opening.end());
    EXPECT_EQ(takeSessionCalls(), opening);
    EXPECT_EQ(peer.isListeningInterruptions(), c.manage);
    struct Step { bool reset; int64_t uses; bool listening; Lines calls; };
    const Step steps[] = {{false, 2, c.manage, {}},
                          {true, 1, c.manage, {}},
                          {true, 0, false, c.manage ? kDeactivation : Lines{}},
                          {true, 0, false, {}}};
    for (const Step& step : steps) {
      peer.setOrResetAVSession(step.reset);
      EXPECT_EQ(p->audioSessionSetCount(), step.uses);
      EXPECT_EQ(peer.isListeningInterruptions(), step.listening);
      EXPECT_EQ(takeSessionCalls(), step.calls);
    }
    EXPECT_EQ(Peer::sessionUsageCount(), 0);
  }
}

TEST_F(PlayerSessionTest, UpdatesAreOnlyStoredWhileIdleAndAppliedAtOnceWhileInUse) {
  struct Case {
    const char* what;
    std::function<void(AudioBufPlayer&)> update;
    std::optional<std::string> category;
    uint64_t options;
    Lines whileInUse;
  };
  const Case cases[] = {
      {"same category", [](auto& p) { p.updateAudioCategory("Playback"); }, "Playback", 1, {}},
      {"new category", [](auto& p) { p.updateAudioCategory("Ambient"); }, "Ambient", 1, 
       {"setCategory Ambient options=1"}},
      {"absent category", [](auto& p) { p.updateAudioCategory(std::nullopt); }, std::nullopt, 1, {}},
      {"empty category", [](auto& p) { p.updateAudioCategory(""); }, "", 1, {}},
      {"same options", [](auto& p) { p.updateAudioCategoryOptions(1); }, "Playback", 1, {}},
      {"new options", [](auto& p) { p.updateAudioCategoryOptions(5); }, "Playback", 5,
       {"setCategory Playback options=5"}}};
  for (const Case& c : cases) {
    for (const bool inUse : {false, true}) {
      SCOPED_TRACE(std::string(c.what) + (inUse ? " in use" : " idle"));
      const auto p = AudioBufPlayer::initWithAudioSessionCategory("Playback", 1, true);
      Peer peer(p);
      if (inUse) peer.setOrResetAVSession(false);
      takeSessionCalls();
      c.update(*p);
      EXPECT_EQ(p->audioCategory(), c.category);
      EXPECT_EQ(p->audioCategoryOptions(), c.options);
      EXPECT_EQ(takeSessionCalls(), inUse ? c.whileInUse : Lines{});
      if (inUse) peer.setOrResetAVSession(true);
    }
  }
}

TEST_F(PlayerSessionTest, SwitchingManagementWhileInUseSubscribesAndSetsTheCategoryButNeverActivates) {
  for (const std::optional<std::string>& category : {std::optional<std::string>("Playback"), {""}, {}}) {
    SCOPED_TRACE(category.value_or("(absent)"));
    const auto p = AudioBufPlayer::initWithAudioSessionCategory(category, 2, false);
    Peer peer(p);
    peer.setOrResetAVSession(false);
    EXPECT_EQ(takeSessionCalls(), Lines{});
    const Lines categorySet = category && !category->empty() ? Lines{"setCategory Playback options=2"} : Lines{};
    for (const auto& [enable, calls] :
         {std::pair{true, categorySet}, {true, Lines{}}, {false, Lines{}}, {true, categorySet}}) {
      p->updateAVSessionManagementEnabled(enable);
      EXPECT_EQ(p->AVSessionManagmentEnabled(), enable);
      EXPECT_EQ(peer.isListeningInterruptions(), enable);
      EXPECT_EQ(takeSessionCalls(), calls);
    }
    // Closing with management on releases the session that the opening left alone.
    peer.setOrResetAVSession(true);
    EXPECT_FALSE(peer.isListeningInterruptions());
    EXPECT_EQ(takeSessionCalls(), kDeactivation);
  }
}

}  // namespace
