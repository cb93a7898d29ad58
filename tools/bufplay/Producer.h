// Feeds sentences to the player the way a speech engine does: the first chunk with playData, the
// rest with appendAudioData, each chunk when the engine would have it ready. The first playData
// waits until a lead of audio is held, and that lead is handed over at once: playback then keeps
// that far behind a producer that delivers in real time, instead of reaching the player's run-out
// point whenever a chunk is a little late. The feeding calls
// block while the player's buffers are all in flight or a pause holds the first sound, so they run
// on the producer's own thread, never on the main loop. When it is done with a sentence the
// producer pushes a FeedEnded event.
//
// Synchronised by mutex_ (the jobs and the abandon flag), by the player's own locking, and by the
// wake descriptor that ends a read of the input when the sentence is abandoned.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "EventQueue.h"
#include "SentenceDelegate.h"
#include "SentenceSource.h"
#include "SessionClock.h"

class Producer {
 public:
  // audioPerSecond: seconds of audio delivered per second of wall time (0: as fast as the input
  // and the player take them). leadSeconds: audio held before the first playData (0: none).
  // offset: the request's offset handed to the player.
  Producer(std::shared_ptr<AudioBufPlayer> player, double audioPerSecond, double leadSeconds, double offset,
           const SessionClock& clock, std::shared_ptr<EventQueue> events);
  // Call after the player was stopped, so that no feeding call still waits inside it.
  ~Producer();
  Producer(const Producer&) = delete;
  Producer& operator=(const Producer&) = delete;

  // Any thread. Feeds the source once the sentences given before are done; the source must
  // outlive the producer.
  void feed(SentenceSource& source, int sentence, std::shared_ptr<SentenceDelegate> delegate);
  // Any thread. The sentence being fed wants no more audio (it was stopped, or it has ended): no
  // further chunk is handed over and a pacing wait ends at once.
  void abandon();

 private:
  struct Job {
    SentenceSource* source;
    int sentence;
    std::shared_ptr<SentenceDelegate> delegate;
  };

  void run();
  void feedSentence(const Job& job);
  // Hands the chunk to the player; the result of playData or appendAudioData.
  AudioBufPlayerError handOver(const Job& job, const DecodedAudio& chunk, bool first);
  // Seconds of audio in what the source still holds, read to its end (or until abandoned).
  double secondsLeft(SentenceSource& source);
  // Whether the sentence being fed was abandoned. Caller holds no lock.
  bool abandoned();
  // Waits until the deadline or until abandoned; true when abandoned. Caller holds no lock.
  bool waitUntilAbandoned(SessionClock::Clock::time_point deadline);

  const std::shared_ptr<AudioBufPlayer> player_;
  const double audioPerSecond_;
  const double leadSeconds_;
  const double offset_;
  const SessionClock clock_;
  const std::shared_ptr<EventQueue> events_;

  std::mutex mutex_;
  std::condition_variable wake_;
  // --- guarded by mutex_ ---
  std::deque<Job> jobs_;
  bool abandoned_ = false;
  bool quit_ = false;

  const int wakeFd_;  // readable while the sentence being fed is abandoned
  std::thread thread_;  // last: starts once everything above is built
};
