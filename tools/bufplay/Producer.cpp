#include "Producer.h"

#include <utility>

Producer::Producer(std::shared_ptr<AudioBufPlayer> player, double audioPerSecond, double offset,
                   const SessionClock& clock, std::shared_ptr<EventQueue> events)
    : player_(std::move(player)),
      audioPerSecond_(audioPerSecond),
      offset_(offset),
      clock_(clock),
      events_(std::move(events)),
      thread_([this] { run(); }) {}

Producer::~Producer() {
  {
    std::lock_guard lock(mutex_);
    quit_ = true;
    abandoned_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void Producer::feed(const SentenceFile& file, int sentence, std::shared_ptr<SentenceDelegate> delegate) {
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back({&file, sentence, std::move(delegate)});
  }
  wake_.notify_all();
}

void Producer::abandon() {
  {
    std::lock_guard lock(mutex_);
    abandoned_ = true;
  }
  wake_.notify_all();
}

// Runs on the producer's thread.
void Producer::run() {
  for (;;) {
    Job job;
    {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return quit_ || !jobs_.empty(); });
      if (quit_) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
      abandoned_ = false;
    }
    feedSentence(job);
  }
}

bool Producer::waitUntilAbandoned(SessionClock::Clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  return wake_.wait_until(lock, deadline, [this] { return abandoned_; });
}

// Runs on the producer's thread.
void Producer::feedSentence(const Job& job) {
  const SentenceFile& file = *job.file;
  SessionEvent report;
  report.sentence = job.sentence;
  report.kind = SessionEvent::FeedEnded;

  const SessionClock::Clock::time_point start = SessionClock::Clock::now();
  double secondsHandedOver = 0;
  // An empty file is a sentence too: its empty first chunk ends it at once.
  for (size_t index = 0; index == 0 || index < file.chunkCount(); ++index) {
    // The engine has a chunk ready once the audio before it, at the engine's pace, is made.
    const std::chrono::duration<double> due(audioPerSecond_ > 0 ? secondsHandedOver / audioPerSecond_ : 0.0);
    const bool abandoned = waitUntilAbandoned(start + std::chrono::duration_cast<SessionClock::Clock::duration>(due));
    if (job.delegate->runOutReached()) {
      report.outcome = FeedOutcome::RunOutRefused;
      report.seconds = file.secondsFrom(index);
      break;
    }
    if (abandoned) {
      report.outcome = FeedOutcome::Stopped;
      break;
    }
    const std::span<const uint8_t> chunk = file.chunk(index);
    const AudioBufPlayerError result =
        index == 0 ? player_->playData(chunk, file.format(), job.delegate, offset_)
                   : player_->appendAudioData(chunk, file.format(), job.delegate, offset_);
    if (result != AudioBufPlayerError_OK) {
      report.error = result;
      if (result == AudioBufPlayerError_STOPPED) {
        report.outcome = FeedOutcome::Stopped;
      } else if (index == 0) {
        report.outcome = FeedOutcome::FailedAtStart;
      } else if (result == AudioBufPlayerError_SWITCH_FORMAT) {
        // Every chunk has the sentence's format: the refusal means the run-out point was reached.
        report.outcome = FeedOutcome::RunOutRefused;
        report.seconds = file.secondsFrom(index);
      } else {
        report.outcome = FeedOutcome::FailedLater;
      }
      break;
    }
    if (file.chunkCount() > 0) secondsHandedOver += file.chunkSeconds(index);
  }
  report.t = clock_.now();
  events_->push(std::move(report));
}
