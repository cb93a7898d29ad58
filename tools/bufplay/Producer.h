// Feeds sentences to the player the way a speech engine does: the first chunk with playData, the
// rest with appendAudioData, each chunk when the engine would have it ready. The feeding calls
// block while the player's buffers are all in flight or a pause holds the first sound, so they run
// on the producer's own thread, never on the main loop. When it is done with a sentence the
// producer pushes a FeedEnded event.
//
// Synchronised by mutex_ (the jobs and the abandon flag) and by the player's own locking.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "EventQueue.h"
#include "SentenceDelegate.h"
#include "SentenceFile.h"
#include "SessionClock.h"

class Producer {
 public:
  // audioPerSecond: seconds of audio delivered per second of wall time (0: as fast as the player
  // takes them). offset: the request's offset handed to the player.
  Producer(std::shared_ptr<AudioBufPlayer> player, double audioPerSecond, double offset, const SessionClock& clock,
           std::shared_ptr<EventQueue> events);
  // Call after the player was stopped, so that no feeding call still waits inside it.
  ~Producer();
  Producer(const Producer&) = delete;
  Producer& operator=(const Producer&) = delete;

  // Any thread. Feeds the file once the sentences given before are done; the file must outlive it.
  void feed(const SentenceFile& file, int sentence, std::shared_ptr<SentenceDelegate> delegate);
  // Any thread. The sentence being fed wants no more audio (it was stopped, or it has ended): no
  // further chunk is handed over and a pacing wait ends at once.
  void abandon();

 private:
  struct Job {
    const SentenceFile* file;
    int sentence;
    std::shared_ptr<SentenceDelegate> delegate;
  };

  void run();
  void feedSentence(const Job& job);
  // Waits until the deadline or until abandoned; true when abandoned. Caller holds no lock.
  bool waitUntilAbandoned(SessionClock::Clock::time_point deadline);

  const std::shared_ptr<AudioBufPlayer> player_;
  const double audioPerSecond_;
  const double offset_;
  const SessionClock clock_;
  const std::shared_ptr<EventQueue> events_;

  std::mutex mutex_;
  std::condition_variable wake_;
  // --- guarded by mutex_ ---
  std::deque<Job> jobs_;
  bool abandoned_ = false;
  bool quit_ = false;

  std::thread thread_;  // last: starts once everything above is built
};
