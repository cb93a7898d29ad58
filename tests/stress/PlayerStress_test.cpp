// Plan: several players on the real platform (the null output, many times faster than real time),
// each fed sentences of the corpus's speech, PCM and MP3, in random chunk sizes by a producer thread
// of its own, while two other threads pause, resume, stop, start, change the volume and the session
// configuration, take and give back session uses, interrupt the session, change its route and drop
// players, in an order drawn from a seed. Round after round, until the time budget is spent.
// Meant for the sanitizer builds: ThreadSanitizer fails the run on a data race, AddressSanitizer on
// a use after free or a leak.
// Checked: nothing hangs (StressWatchdog.h); every sentence ends, by a report, a stop or the
// player's release; every delegate call comes for its own, living player (SentenceDelegate.h); in
// the end no player, delegate or queue is left and the process-wide session count is back to 0.
// Not here: what is heard, the order of reports (the unit and end-to-end tests).
//
// ABP_STRESS_SEED=<n> replays a run's choices (the thread schedule is the machine's);
// ABP_STRESS_SECONDS=<s> changes the time budget.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/Dispatch.h"
#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "platform/StreamParserTestSupport.h"
#include "stress/SentenceDelegate.h"
#include "stress/StressWatchdog.h"
#include "unit/AudioBufPlayerTestPeer.h"

namespace stress_test {
namespace {

using namespace QEN_TTS::Audio;
using Clock = std::chrono::steady_clock;

constexpr int kPlayers = 4;
constexpr int kChaosThreads = 2;
constexpr int kSentencesPerRound = 2;
constexpr int kMaxChaosOperationsPerRound = 60;
constexpr double kOutputSpeed = 8.0;
constexpr auto kTeardownDeadline = std::chrono::seconds(30);

uint64_t SettingOr(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  return text ? std::strtoull(text, nullptr, 10) : fallback;
}

struct SentenceAudio {
  std::string file;
  AudioPlayerAudioFormats format;
  std::vector<uint8_t> bytes;
};

// Every sentence of the corpus that plays: PCM at the player's two rates, and MP3.
std::vector<SentenceAudio> CorpusSentences() {
  std::vector<SentenceAudio> sentences;
  for (auto& row : stream_parser_test::ReadTsv("MANIFEST.tsv")) {
    if (row["expected"].rfind("plays", 0) != 0) continue;
    std::optional<AudioPlayerAudioFormats> format;
    if (row["format"] == "pcm_s16le") {
      format = row["rate"] == "8000" ? EAudioPlayerAudioFormat_PCM8K : EAudioPlayerAudioFormat_PCM16K;
    } else if (row["format"].find("L3") != std::string::npos) {
      format = EAudioPlayerAudioFormat_MP3;
    }
    if (format) sentences.push_back({row["file"], *format, stream_parser_test::ReadCorpusFile(row["file"])});
  }
  return sentences;
}

// A player as its client holds it. The chaos threads hold the mutex for each operation.
struct Slot {
  std::mutex mutex;
  // --- guarded by mutex ---
  std::shared_ptr<AudioBufPlayer> player;  // null once released
  std::weak_ptr<AudioBufPlayer> client;    // the client's references, the producer's in a call included
  std::weak_ptr<AudioBufPlayer> lifetime;  // the player's own: expires when it is destroyed
  std::shared_ptr<SentenceDelegate> awaited;  // the playing its producer waits for, for the report of a stall
  bool pausedByClient = false;
  // Managing the session all round long: then the interruption's end alone must resume the player.
  bool managedThroughout = false;
};

// How the playings ended, the operations made.
struct Tally {
  std::atomic<int> finished{0}, errors{0}, stopped{0}, released{0}, operations{0};
};

class PlayerStress {
 public:
  PlayerStress(uint64_t seed, std::shared_ptr<StressWatchdog> watchdog)
      : seed_(seed), watchdog_(std::move(watchdog)), corpus_(CorpusSentences()) {
    for (size_t i = 0; i < logs_.size(); ++i) logs_[i] = &watchdog_->log(i < kPlayers ? "producer" : "chaos");
    watchdog_->describeStateWith([this] { describePlayers(); });
  }
  ~PlayerStress() { watchdog_->describeStateWith(nullptr); }
  PlayerStress(const PlayerStress&) = delete;
  PlayerStress& operator=(const PlayerStress&) = delete;

  void round(int number) {
    std::vector<std::thread> threads;
    for (int slot = 0; slot < kPlayers; ++slot) {
      createIfReleased(slot, number);
      threads.emplace_back([this, slot, number] { produce(slot, random(number, slot)); });
    }
    for (int chaos = 0; chaos < kChaosThreads; ++chaos) {
      threads.emplace_back([this, chaos, number] { disturb(chaos, random(number, kPlayers + chaos)); });
    }
    for (std::thread& thread : threads) thread.join();
  }

  // Lets go of every player and waits until each has been destroyed.
  void releaseAll() {
    std::vector<std::weak_ptr<AudioBufPlayer>> lifetimes;
    for (Slot& slot : slots_) {
      std::shared_ptr<AudioBufPlayer> player;
      std::shared_ptr<SentenceDelegate> awaited;  // may hold the player, handed over by a release
      std::lock_guard lock(slot.mutex);
      player = std::move(slot.player);
      awaited = std::move(slot.awaited);
      lifetimes.push_back(slot.lifetime);
    }
    lifetimes.insert(lifetimes.end(), released_.begin(), released_.end());
    // Players outlive their client by the tasks they posted (the longest holds the session for a
    // while after the last sentence) and by the queue callbacks in progress, which may post more.
    const double seconds = std::chrono::duration<double>(kTeardownDeadline).count();
    EXPECT_TRUE(dispatch_wait_until_idle(seconds));
    EXPECT_TRUE(AudioQueueWaitForReleases(seconds));
    EXPECT_TRUE(dispatch_wait_until_idle(seconds));
    const auto allGone = [&] {
      for (const auto& lifetime : lifetimes) {
        if (!lifetime.expired()) return false;
      }
      return true;
    };
    EXPECT_TRUE(allGone()) << "a player was never destroyed";
  }

  const Tally& tally() const { return tally_; }

  // Runs on the watchdog's thread while the test is stuck: a slot whose lock is held is skipped.
  void describePlayers() {
    for (size_t i = 0; i < slots_.size(); ++i) {
      std::unique_lock lock(slots_[i].mutex, std::try_to_lock);
      if (!lock) continue;
      // A released player may still be fed by its producer.
      if (std::shared_ptr<AudioBufPlayer> player = slots_[i].lifetime.lock()) {
        std::fprintf(stderr, "stress: player %zu%s: status word 0x%04x; awaited playing: %s\n", i,
                     slots_[i].player ? "" : " (released)", unsigned(AudioBufPlayerTestPeer(player).status()),
                     slots_[i].awaited ? slots_[i].awaited->history().c_str() : "none");
      }
    }
  }

 private:
  std::mt19937_64 random(int round, int thread) const { return std::mt19937_64(seed_ + 1000003 * round + thread); }

  void createIfReleased(int index, int round) {
    Slot& slot = slots_[index];
    std::lock_guard lock(slot.mutex);
    slot.pausedByClient = false;
    if (slot.player) {
      slot.managedThroughout = slot.player->AVSessionManagmentEnabled();
      return;
    }
    released_.push_back(slot.lifetime);
    std::mt19937_64 random = this->random(round, 100 + index);
    static const std::optional<std::string> categories[] = {"playback", std::nullopt, ""};
    const bool managing = random() % 4 != 0;
    slot.player = AudioBufPlayer::initWithAudioSessionCategory(categories[random() % 3], random() % 4, managing);
    ASSERT_TRUE(slot.player);
    slot.player->start();
    slot.client = slot.player;
    slot.lifetime = slot.player->weak_from_this();
    slot.managedThroughout = slot.player->AVSessionManagmentEnabled();
  }

  // Feeds kSentencesPerRound sentences into one player, each ended before the next begins.
  void produce(int index, std::mt19937_64 random) {
    ThreadLog& log = *logs_[index];
    Slot& slot = slots_[index];
    for (int n = 0; n < kSentencesPerRound; ++n) {
      const SentenceAudio& audio = corpus_[random() % corpus_.size()];
      log.doing("feeding", index, audio.file.c_str());
      const std::vector<std::shared_ptr<SentenceDelegate>> playings = feed(slot, audio, random);
      log.doing("awaiting the end of", index, audio.file.c_str());
      for (const auto& playing : playings) {
        {
          std::lock_guard lock(slot.mutex);
          slot.awaited = playing;
        }
        count(playing->awaitEnd());
        watchdog_->progress();
      }
    }
    log.doing("done", index);
  }

  // Returns the delegates of the playings that the sentence's chunks started: usually one; none
  // when the player was stopped or released; more when a stop and a start came in the middle.
  std::vector<std::shared_ptr<SentenceDelegate>> feed(Slot& slot, const SentenceAudio& audio,
                                                      std::mt19937_64& random) {
    std::vector<std::shared_ptr<SentenceDelegate>> playings;
    const auto endAll = [&](SentenceDelegate::End end) {
      for (const auto& playing : playings) playing->end(end);
      return playings;
    };
    const double offset = double(random() % 10);
    for (size_t position = 0; position < audio.bytes.size();) {
      // Mostly a few KiB, sometimes a handful of bytes, which splits MP3 frames and PCM samples.
      const size_t size = random() % 8 == 0 ? 1 + random() % 16 : 1 + random() % 4096;
      const std::span<const uint8_t> chunk(audio.bytes.data() + position,
                                           std::min(size, audio.bytes.size() - position));
      std::shared_ptr<AudioBufPlayer> player;
      {
        std::lock_guard lock(slot.mutex);
        player = slot.player;
      }
      if (!player) return endAll(SentenceDelegate::End::Released);
      auto delegate = std::make_shared<SentenceDelegate>(player.get(), watchdog_);
      const bool first = position == 0;
      const AudioBufPlayerError result = first ? player->playData(chunk, audio.format, delegate, offset)
                                               : player->appendAudioData(chunk, audio.format, delegate, offset);
      watchdog_->progress();
      position += chunk.size();
      if (delegate->started()) playings.push_back(delegate);
      {
        std::lock_guard lock(slot.mutex);
        // Released during the call: this thread's reference may be the last, and the playing ends
        // when it goes.
        if (!slot.player) return endAll(SentenceDelegate::End::Released);
        if (!first && delegate->started()) {
          // A stop and a start came before this chunk, which began a sentence of its own with the
          // middle of the old one. Its audio may never play (an MP3 tail too short for the parser to
          // lock onto), and the player has no word for "no more is coming": the client stops it.
          stop(slot);
          return playings;
        }
      }
      if (result == AudioBufPlayerError_OK) continue;
      delegate->note("returned " + std::to_string(result));
      if (result == AudioBufPlayerError_STOPPED) return endAll(SentenceDelegate::End::Stopped);
      // The producer fell behind playback: the sentence plays out what it has.
      if (result == AudioBufPlayerError_SWITCH_FORMAT) return playings;
      ADD_FAILURE() << audio.file << ": unexpected result " << result;
      return endAll(SentenceDelegate::End::Error);
    }
    return playings;
  }

  // Transport, volume and session operations in random order, then what lets every sentence end:
  // the interruption's end, every session use given back, resume and start.
  void disturb(int thread, std::mt19937_64 random) {
    ThreadLog& log = *logs_[kPlayers + thread];
    std::vector<bool> heldSessionUses;  // the management flag of each use taken
    bool interrupted = false;
    AudioSession& session = AudioSession::sharedInstance();
    const int operations = 1 + int(random() % kMaxChaosOperationsPerRound);
    for (int n = 0; n < operations; ++n) {
      paceWithProducers();
      const int index = int(random() % kPlayers);
      Slot& slot = slots_[index];
      std::unique_lock lock(slot.mutex);
      if (!slot.player) continue;
      std::shared_ptr<AudioBufPlayer> player = slot.player;
      switch (random() % 16) {
        case 0:
          log.doing("pause", index);
          player->pause();
          slot.pausedByClient = true;
          break;
        case 1:
        case 2:
          log.doing("resume", index);
          player->resume();
          slot.pausedByClient = false;
          break;
        case 3:
          log.doing("stop", index);
          stop(slot);
          if (random() % 2) player->start();  // skipping a sentence, rather than stopping for good
          break;
        case 4:
        case 5:
          log.doing("start", index);
          player->start();
          break;
        case 6:
          log.doing("setVolume", index);
          player->setVolume(float(random() % 12) / 10 - 0.1f);  // a negative one is not applied
          break;
        case 7:
          log.doing("updateAVSessionManagementEnabled", index);
          player->updateAVSessionManagementEnabled(random() % 2);
          slot.managedThroughout = false;
          break;
        case 8:
          log.doing("updateAudioCategoryOptions", index);
          player->updateAudioCategoryOptions(random() % 4);
          break;
        case 9: {
          static const std::optional<std::string> categories[] = {"playback", "ambient", "", std::nullopt};
          log.doing("updateAudioCategory", index);
          player->updateAudioCategory(categories[random() % 4]);
          break;
        }
        case 10:
          lock.unlock();
          if (!heldSessionUses.empty() && random() % 2) {
            log.doing("SetAudioSessionActivationStatus(false)");
            AudioBufPlayer::SetAudioSessionActivationStatus(false, heldSessionUses.back());
            heldSessionUses.pop_back();
          } else {
            log.doing("SetAudioSessionActivationStatus(true)");
            heldSessionUses.push_back(random() % 2);
            AudioBufPlayer::SetAudioSessionActivationStatus(true, heldSessionUses.back());
          }
          break;
        case 11:
          log.doing(interrupted ? "endInterruption" : "beginInterruption");
          interrupted ? session.endInterruption() : session.beginInterruption();
          interrupted = !interrupted;
          break;
        case 12:
          log.doing("changeRoute");
          session.changeRoute();
          break;
        default:
          if (random() % 4 == 0) {  // the client lets go, maybe in the middle of a sentence
            log.doing("release", index);
            release(slot, lock, random() % 2);
            player = nullptr;  // the player may go away here, on this thread
          }
          break;
      }
      tally_.operations.fetch_add(1);
      watchdog_->progress();
    }
    log.doing("settle");
    if (interrupted) session.endInterruption();
    for (bool managed : heldSessionUses) AudioBufPlayer::SetAudioSessionActivationStatus(false, managed);
    for (Slot& slot : slots_) {
      std::shared_ptr<AudioBufPlayer> player;
      std::lock_guard lock(slot.mutex);
      player = slot.client.lock();
      if (!player) continue;
      // A player that does not manage the session learns nothing of the interruption's end.
      if (slot.pausedByClient || !slot.managedThroughout) player->resume();
      slot.pausedByClient = false;
      player->start();
    }
    log.doing("done");
  }

  // A stop or release ends the playing whose start set the player's delegate: a feeding call that
  // comes after the stop is refused, or (after a start) starts a playing with a delegate of its own.
  static std::shared_ptr<SentenceDelegate> delegateOf(AudioBufPlayer& player) {
    return std::dynamic_pointer_cast<SentenceDelegate>(player.delegate());
  }
  // Caller holds slot.mutex, so no start comes between the stop and the look at the delegate.
  static void stop(Slot& slot) {
    slot.player->stop();
    if (auto delegate = delegateOf(*slot.player)) delegate->end(SentenceDelegate::End::Stopped);
  }
  // The client's reference goes, here or in the delegate's next call; the caller's copy, and the
  // producer's while inside a call, may still keep the player for a while.
  static void release(Slot& slot, std::unique_lock<std::mutex>& lock, bool byTheDelegate) {
    std::shared_ptr<AudioBufPlayer> player = std::move(slot.player);
    if (auto delegate = delegateOf(*player)) {
      delegate->end(SentenceDelegate::End::Released);
      if (byTheDelegate) delegate->holdUntilNextCall(std::move(player));
    }
    lock.unlock();
  }

  // Spreads the operations over the round instead of spending them all before the first chunk. It
  // waits for nothing: any interleaving is a valid one.
  void paceWithProducers() { std::this_thread::sleep_for(std::chrono::microseconds(500)); }

  void count(SentenceDelegate::End end) {
    switch (end) {
      case SentenceDelegate::End::Finished: tally_.finished.fetch_add(1); break;
      case SentenceDelegate::End::Error: tally_.errors.fetch_add(1); break;
      case SentenceDelegate::End::Stopped: tally_.stopped.fetch_add(1); break;
      case SentenceDelegate::End::Released: tally_.released.fetch_add(1); break;
      case SentenceDelegate::End::None: break;
    }
  }

  const uint64_t seed_;
  const std::shared_ptr<StressWatchdog> watchdog_;
  const std::vector<SentenceAudio> corpus_;
  std::array<Slot, kPlayers> slots_;
  std::vector<std::weak_ptr<AudioBufPlayer>> released_;  // the driver's thread only
  Tally tally_;
  std::array<ThreadLog*, kPlayers + kChaosThreads> logs_{};  // producers first, then the chaos threads
};

TEST(PlayerStress, RandomInterleavingsNeitherRaceNorHangNorLeakAndEverySentenceEnds) {
  const uint64_t seed = SettingOr("ABP_STRESS_SEED", std::random_device{}());
  const auto budget = std::chrono::seconds(SettingOr("ABP_STRESS_SECONDS", ABP_STRESS_SECONDS));
  std::printf("stress: seed %" PRIu64 " (ABP_STRESS_SEED=%" PRIu64 " replays it), budget %lld s\n", seed, seed,
              static_cast<long long>(budget.count()));
  std::fflush(stdout);
  ASSERT_EQ(AudioOutputSelect("null", kOutputSpeed), noErr);

  auto watchdog = std::make_shared<StressWatchdog>();
  const auto start = Clock::now();
  int rounds = 0;
  {
    PlayerStress stress(seed, watchdog);
    while (rounds == 0 || Clock::now() - start < budget) {
      stress.round(rounds++);
      ASSERT_EQ(SentenceDelegate::violation(), "") << "seed " << seed << ", round " << rounds;
    }
    stress.releaseAll();
    const Tally& tally = stress.tally();
    std::printf("stress: %d rounds in %.1f s; playings finished %d, failed %d, stopped %d, released %d; "
                "%d operations\n",
                rounds, std::chrono::duration<double>(Clock::now() - start).count(), tally.finished.load(),
                tally.errors.load(), tally.stopped.load(), tally.released.load(), tally.operations.load());
  }
  EXPECT_TRUE(AudioQueueWaitForReleases(std::chrono::duration<double>(kTeardownDeadline).count()));
  EXPECT_EQ(SentenceDelegate::live(), 0) << "a delegate was kept";
  EXPECT_EQ(AudioBufPlayerTestPeer::sessionUsageCount(), 0) << "session uses were not given back";
  EXPECT_EQ(SentenceDelegate::violation(), "") << "seed " << seed;
}

}  // namespace
}  // namespace stress_test
