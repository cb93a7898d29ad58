// Players on the null output, each fed corpus sentences in random chunks by a producer thread,
// while two chaos threads disturb them in an order drawn from a seed. Meant for the sanitizer builds.
// Checked: nothing hangs; every started sentence ends once (at most once when the client stopped or
// released the player); delegate calls come for their own living player; nothing is left over.
// ABP_STRESS_SEED replays a run's choices (not the thread schedule); ABP_STRESS_SECONDS its budget.
// Delegates fail the test from any thread: gtest's assertions are thread-safe.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/Dispatch.h"
#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "corpus/Corpus.h"
#include "unit/AudioBufPlayerTestPeer.h"

namespace stress_test {
namespace {

using namespace QEN_TTS::Audio;
using Clock = std::chrono::steady_clock;

constexpr int kPlayers = 4;
constexpr int kChaosThreads = 2;
constexpr int kSentencesPerRound = 2;
constexpr int kMaxChaosOperationsPerRound = 60;
constexpr double kTeardownSeconds = 30;
constexpr auto kStall = std::chrono::seconds(10);

std::atomic<uint64_t> progress{0};
void Progress() { progress.fetch_add(1, std::memory_order_relaxed); }

// Every player made: each must be destroyed by the end, and a stall report shows the status word
// of those still alive, where a sentence that never ends shows.
std::mutex playersMadeMutex;
std::vector<std::weak_ptr<AudioBufPlayer>> playersMade;  // guarded by playersMadeMutex

void PrintLivePlayers() {
  std::lock_guard lock(playersMadeMutex);
  for (size_t i = 0; i < playersMade.size(); ++i) {
    if (const auto player = playersMade[i].lock()) {
      std::fprintf(stderr, "stress: player %zu status 0x%04x\n", i, unsigned(AudioBufPlayerTestPeer(*player).status()));
    }
  }
}

// A deadlock or a sentence that never ends fails the run with every thread's stack, not a timeout.
void WatchForStalls(std::stop_token stop) {
  std::mutex mutex;
  std::unique_lock lock(mutex);
  std::condition_variable_any wakeup;
  uint64_t seen = progress.load();
  auto lastMove = Clock::now();
  while (!wakeup.wait_for(lock, stop, std::chrono::seconds(1), [&stop] { return stop.stop_requested(); })) {
    if (const uint64_t now = progress.load(); now != seen) {
      seen = now;
      lastMove = Clock::now();
    } else if (Clock::now() - lastMove > kStall) {
      std::fprintf(stderr, "\nstress: no progress for %lld s: deadlock or a sentence that never ends\n",
                   static_cast<long long>(kStall.count()));
      PrintLivePlayers();
      const std::string gdb = "gdb -p " + std::to_string(getpid()) + " -batch -ex 'thread apply all bt' 1>&2";
      if (std::system(gdb.c_str()) != 0) std::fprintf(stderr, "stress: gdb could not print the threads' stacks\n");
      std::fflush(stderr);
      std::abort();
    }
  }
}

// One per feeding call: reports go to the delegate of the call that started the playing, which
// counts its ends when it goes. It may be handed the client's last reference to the player and drop
// it in its next unlocked call, so that the player goes away on a queue or work thread.
class SentenceDelegate final : public AudioBufPlayerDelegate {
 public:
  explicit SentenceDelegate(AudioBufPlayer* player) : player_(player) { live.fetch_add(1); }
  ~SentenceDelegate() override {
    const int ends = ends_.load();
    if (ends > 1 || (started_.load() && !endedByClient_.load() && ends == 0)) {
      ADD_FAILURE() << "a sentence had " << ends << " ends";
    }
    live.fetch_sub(1);
  }
  static inline std::atomic<int> live{0};

  bool started() const { return started_.load(); }  // final once the feeding call has returned
  // The client stopped or released the player: the playing may end without a report.
  void endByClient() {
    endedByClient_.store(true);
    end();
  }
  void awaitEnd() const { ended_.wait(false); }  // the watchdog catches a playing that never ends
  void holdUntilNextCall(std::shared_ptr<AudioBufPlayer> player) {
    std::lock_guard lock(mutex_);
    handedOver_ = std::move(player);
  }

  void playerWillStartPlayback(AudioBufPlayer* player) override {
    check(player);
    started_.store(true);
  }
  void updatedTotalLength(double, AudioBufPlayer* player) override { check(player); }
  // The others are made outside the player's locks, where the player may go away.
  void playProgressChanged(double, AudioBufPlayer* player) override { check(player, true); }
  void aboutToEnd(AudioBufPlayer* player) override { check(player, true); }
  void PlaybackFinished(AudioBufPlayer* player) override { check(player, true, true); }
  // The other errors leave the sentence going on to its PlaybackFinished.
  void PlayerError(AudioBufPlayerError error, AudioBufPlayer* player, const std::string&) override {
    check(player, true,
          error == AudioBufPlayerError_FAILED_GET_STREAM_PROPERTIES ||
              error == AudioBufPlayerError_FAILED_OPEN_DEVICE || error == AudioBufPlayerError_FAILED_PARSE_STREAM);
  }
  void PlayerWasPaused(AudioBufPlayerPauseSource, AudioBufPlayer* player) override { check(player, true); }
  void PlayerWasResumed(AudioBufPlayer* player) override { check(player, true); }

 private:
  void end() {
    ended_.store(true);
    ended_.notify_all();
  }
  void check(AudioBufPlayer* player, bool dropsHandedOver = false, bool ends = false) {
    Progress();
    EXPECT_EQ(player, player_) << "a delegate call came for another player";
    EXPECT_TRUE(player->weak_from_this().lock()) << "a delegate call came while the player was being destroyed";
    if (ends) {
      ends_.fetch_add(1);
      end();
    }
    std::shared_ptr<AudioBufPlayer> handedOver;  // released after the lock
    std::lock_guard lock(mutex_);
    if (dropsHandedOver) handedOver = std::move(handedOver_);
  }

  AudioBufPlayer* const player_;
  std::atomic<bool> started_{false}, ended_{false}, endedByClient_{false};
  std::atomic<int> ends_{0};
  std::mutex mutex_;
  std::shared_ptr<AudioBufPlayer> handedOver_;  // guarded by mutex_
};

uint64_t SettingOr(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  return text ? std::strtoull(text, nullptr, 10) : fallback;
}

struct SentenceAudio {
  AudioPlayerAudioFormats format;
  std::vector<uint8_t> bytes;
};

// PCM at the player's two rates; MP3 with an Info frame, with a Xing frame at 24 kHz, and stereo.
std::vector<SentenceAudio> CorpusSentences() {
  const std::pair<AudioPlayerAudioFormats, const char*> files[] = {
      {EAudioPlayerAudioFormat_PCM8K, "fox_s16le_8000.pcm"},
      {EAudioPlayerAudioFormat_PCM16K, "hello_s16le_16000.pcm"},
      {EAudioPlayerAudioFormat_MP3, "hold_m2_16k_cbr48_lame_info.mp3"},
      {EAudioPlayerAudioFormat_MP3, "hold_m2_24k_vbr_lame_xing.mp3"},
      {EAudioPlayerAudioFormat_MP3, "hello_m1_44k_stereo_cbr128_lame_id3v23_id3v1.mp3"}};
  std::vector<SentenceAudio> sentences;
  for (const auto& [format, file] : files) sentences.push_back({format, corpus::ReadCorpusFile(file)});
  return sentences;
}

// A player as its client holds it; guarded by mutex, which each chaos operation holds.
struct Slot {
  std::mutex mutex;
  std::shared_ptr<AudioBufPlayer> player;  // null once released
  std::weak_ptr<AudioBufPlayer> client;    // the client's references, the producer's in a call included
  bool pausedByClient = false;
  bool managing = false;  // of the session: then the interruption's end alone resumes the player
  // The producer's alone, kept for the round so that a second end reaches them.
  std::vector<std::shared_ptr<SentenceDelegate>> delegates;
};

// The caller holds slot.mutex, so no start comes between a stop and the look at the delegate.
std::shared_ptr<SentenceDelegate> DelegateOf(AudioBufPlayer& player) {
  return std::dynamic_pointer_cast<SentenceDelegate>(player.delegate());
}

void Stop(Slot& slot) {
  slot.player->stop();
  if (auto delegate = DelegateOf(*slot.player)) delegate->endByClient();
}

class PlayerStress {
 public:
  explicit PlayerStress(uint64_t seed) : seed_(seed), corpus_(CorpusSentences()) {}

  void round(int number) {
    std::vector<std::thread> threads;
    for (int slot = 0; slot < kPlayers; ++slot) {
      createIfReleased(slots_[slot], random(number, 100 + slot));
      threads.emplace_back([this, slot, number] { produce(slots_[slot], random(number, slot)); });
    }
    for (int chaos = 0; chaos < kChaosThreads; ++chaos) {
      threads.emplace_back([this, chaos, number] { disturb(random(number, kPlayers + chaos)); });
    }
    for (std::thread& thread : threads) thread.join();
    for (Slot& slot : slots_) slot.delegates.clear();  // unlocked: one may hold its player
  }

  void releaseAll() {
    for (Slot& slot : slots_) {
      std::shared_ptr<AudioBufPlayer> player;  // may go away here, after the lock
      std::lock_guard lock(slot.mutex);
      player = std::move(slot.player);
    }
    // Posted tasks and queue callbacks in progress (which may post more) outlive the client.
    EXPECT_TRUE(dispatch_wait_until_idle(kTeardownSeconds));
    EXPECT_TRUE(AudioQueueWaitForReleases(kTeardownSeconds));
    EXPECT_TRUE(dispatch_wait_until_idle(kTeardownSeconds));
    std::lock_guard made(playersMadeMutex);
    EXPECT_TRUE(std::all_of(playersMade.begin(), playersMade.end(), [](auto& player) { return player.expired(); }))
        << "a player was never destroyed";
  }

 private:
  std::mt19937_64 random(int round, int thread) const { return std::mt19937_64(seed_ + 1000003 * round + thread); }

  void createIfReleased(Slot& slot, std::mt19937_64 random) {
    std::lock_guard lock(slot.mutex);
    slot.pausedByClient = false;
    if (!slot.player) {
      slot.managing = random() % 4 != 0;
      slot.player = AudioBufPlayer::initWithAudioSessionCategory("playback", 0, slot.managing);
      slot.player->start();
      slot.client = slot.player;
      std::lock_guard made(playersMadeMutex);
      playersMade.push_back(slot.player);
    }
  }

  void produce(Slot& slot, std::mt19937_64 random) {
    for (int n = 0; n < kSentencesPerRound; ++n) {
      for (const auto& playing : feed(slot, corpus_[random() % corpus_.size()], random)) {
        playing->awaitEnd();
        Progress();
      }
    }
  }

  // The delegates of the playings the sentence's chunks started: none when the player was stopped
  // or released, more when a stop and a start came in the middle.
  std::vector<std::shared_ptr<SentenceDelegate>> feed(Slot& slot, const SentenceAudio& audio, std::mt19937_64& random) {
    std::vector<std::shared_ptr<SentenceDelegate>> playings;
    const auto endAll = [&] {
      for (const auto& playing : playings) playing->endByClient();
      return playings;
    };
    const double offset = double(random() % 10);
    for (size_t position = 0; position < audio.bytes.size();) {
      // Sometimes a handful of bytes, which splits MP3 frames and PCM samples.
      const size_t size = random() % 8 == 0 ? 1 + random() % 16 : 1 + random() % 4096;
      const std::span<const uint8_t> chunk(audio.bytes.data() + position,
                                           std::min(size, audio.bytes.size() - position));
      std::shared_ptr<AudioBufPlayer> player;
      {
        std::lock_guard lock(slot.mutex);
        player = slot.player;
      }
      if (!player) return endAll();
      auto delegate = slot.delegates.emplace_back(std::make_shared<SentenceDelegate>(player.get()));
      const bool first = position == 0;
      const AudioBufPlayerError result = first ? player->playData(chunk, audio.format, delegate, offset)
                                               : player->appendAudioData(chunk, audio.format, delegate, offset);
      Progress();
      position += chunk.size();
      if (delegate->started()) playings.push_back(delegate);
      {
        std::lock_guard lock(slot.mutex);
        // Released during the call: this thread's reference may be the last.
        if (!slot.player) return endAll();
        if (!first && delegate->started()) {
          // A stop and a start made this chunk begin a sentence with the old one's middle, which may
          // never play (an MP3 tail the parser cannot lock onto): the client stops it.
          Stop(slot);
          return playings;
        }
      }
      if (result == AudioBufPlayerError_OK) continue;
      if (result == AudioBufPlayerError_STOPPED) return endAll();
      // The producer fell behind playback: the sentence plays out what it has.
      if (result == AudioBufPlayerError_SWITCH_FORMAT) return playings;
      ADD_FAILURE() << "unexpected result " << result;
      return endAll();
    }
    return playings;
  }

  // Random operations, then what lets every sentence end: interruption's end, resume and start.
  void disturb(std::mt19937_64 random) {
    bool interrupted = false;
    AudioSession& session = AudioSession::sharedInstance();
    const int operations = 1 + int(random() % kMaxChaosOperationsPerRound);
    for (int n = 0; n < operations; ++n, Progress()) {
      // Spreads the operations over the round; it waits for nothing: any interleaving is valid.
      std::this_thread::sleep_for(std::chrono::microseconds(500));
      Slot& slot = slots_[random() % kPlayers];
      std::unique_lock lock(slot.mutex);
      if (!slot.player) continue;
      std::shared_ptr<AudioBufPlayer> player = slot.player;
      switch (random() % 12) {
        case 0: player->pause(); slot.pausedByClient = true; break;
        case 1:
        case 2: player->resume(); slot.pausedByClient = false; break;
        case 3:
          Stop(slot);
          if (random() % 2) player->start();  // skipping a sentence, rather than stopping for good
          break;
        case 4:
        case 5: player->start(); break;
        case 6: player->setVolume(float(random() % 12) / 10 - 0.1f); break;  // a negative one is not applied
        case 7:
          interrupted ? session.endInterruption() : session.beginInterruption();
          interrupted = !interrupted;
          break;
        case 8: session.changeRoute(); break;
        default:
          if (random() % 4 == 0) {  // the client lets go, maybe in the middle of a sentence
            release(slot, lock, random() % 2);
            player = nullptr;  // the player may go away here, on this thread
          }
      }
    }
    if (interrupted) session.endInterruption();
    for (Slot& slot : slots_) {
      std::shared_ptr<AudioBufPlayer> player;
      std::lock_guard lock(slot.mutex);
      player = slot.client.lock();
      if (!player) continue;
      // A player that does not manage the session learns nothing of the interruption's end.
      if (slot.pausedByClient || !slot.managing) player->resume();
      slot.pausedByClient = false;
      player->start();
    }
  }

  // The client's reference goes, here or in the delegate's next call.
  static void release(Slot& slot, std::unique_lock<std::mutex>& lock, bool byTheDelegate) {
    std::shared_ptr<AudioBufPlayer> player = std::move(slot.player);
    if (auto delegate = DelegateOf(*player)) {
      delegate->endByClient();
      if (byTheDelegate) delegate->holdUntilNextCall(std::move(player));
    }
    lock.unlock();
  }

  const uint64_t seed_;
  const std::vector<SentenceAudio> corpus_;
  std::array<Slot, kPlayers> slots_;
};

TEST(PlayerStress, RandomInterleavingsNeitherRaceNorHangNorLeakAndEverySentenceEnds) {
  const uint64_t seed = SettingOr("ABP_STRESS_SEED", std::random_device{}());
  const auto budget = std::chrono::seconds(SettingOr("ABP_STRESS_SECONDS", ABP_STRESS_SECONDS));
  std::printf("stress: seed %" PRIu64 " (ABP_STRESS_SEED=%" PRIu64 " replays it), budget %lld s\n", seed, seed,
              static_cast<long long>(budget.count()));
  std::fflush(stdout);
  ASSERT_EQ(AudioOutputSelect("null", 8.0), noErr);
  // gdb runs as a child of this process and attaches to it, which Yama's default scope refuses.
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
  const std::jthread watchdog(WatchForStalls);
  const auto start = Clock::now();
  {
    PlayerStress stress(seed);
    for (int round = 0; round == 0 || Clock::now() - start < budget; ++round) {
      stress.round(round);
      ASSERT_FALSE(HasFailure()) << "seed " << seed << ", round " << round;
    }
    stress.releaseAll();
  }
  EXPECT_TRUE(AudioQueueWaitForReleases(kTeardownSeconds));
  EXPECT_EQ(SentenceDelegate::live.load(), 0) << "a delegate was kept";
  EXPECT_EQ(AudioBufPlayerTestPeer::sessionUsageCount(), 0) << "session uses were not given back";
}

}  // namespace
}  // namespace stress_test
