#include "Producer.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <numeric>
#include <utility>
#include <vector>

Producer::Producer(std::shared_ptr<AudioBufPlayer> player, double audioPerSecond, double leadSeconds, double offset,
                   const SessionClock& clock, std::shared_ptr<EventQueue> events)
    : player_(std::move(player)),
      audioPerSecond_(audioPerSecond),
      leadSeconds_(leadSeconds),
      offset_(offset),
      clock_(clock),
      events_(std::move(events)),
      wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      thread_([this] { run(); }) {}

Producer::~Producer() {
  abandon();
  {
    std::lock_guard lock(mutex_);
    quit_ = true;
  }
  wake_.notify_all();
  thread_.join();
  close(wakeFd_);
}

void Producer::feed(SentenceSource& source, int sentence, std::shared_ptr<SentenceDelegate> delegate) {
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back({&source, sentence, std::move(delegate)});
  }
  wake_.notify_all();
}

void Producer::abandon() {
  {
    std::lock_guard lock(mutex_);
    abandoned_ = true;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wakeFd_, &one, sizeof one);
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
      uint64_t count = 0;
      [[maybe_unused]] const ssize_t read = ::read(wakeFd_, &count, sizeof count);
    }
    feedSentence(job);
  }
}

bool Producer::abandoned() {
  std::lock_guard lock(mutex_);
  return abandoned_;
}

bool Producer::waitUntilAbandoned(SessionClock::Clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  return wake_.wait_until(lock, deadline, [this] { return abandoned_; });
}

// Runs on the producer's thread.
AudioBufPlayerError Producer::handOver(const Job& job, const DecodedAudio& chunk, bool first) {
  const auto format = job.source->format();
  return first ? player_->playData(chunk.bytes, format, job.delegate, offset_)
               : player_->appendAudioData(chunk.bytes, format, job.delegate, offset_);
}

// Runs on the producer's thread.
double Producer::secondsLeft(SentenceSource& source) {
  double seconds = 0;
  while (const std::optional<DecodedAudio> chunk = source.read(wakeFd_)) seconds += chunk->seconds;
  return seconds;
}

// Runs on the producer's thread.
void Producer::feedSentence(const Job& job) {
  SessionEvent report;
  report.sentence = job.sentence;
  report.kind = SessionEvent::FeedEnded;
  const auto refuse = [&](const std::vector<DecodedAudio>& held, size_t from) {
    report.outcome = FeedOutcome::RunOutRefused;
    report.seconds = std::accumulate(held.begin() + std::ptrdiff_t(from), held.end(), secondsLeft(*job.source),
                                     [](double sum, const DecodedAudio& chunk) { return sum + chunk.seconds; });
  };

  const SessionClock::Clock::time_point start = SessionClock::Clock::now();
  double secondsRead = 0;
  bool started = false;
  std::vector<DecodedAudio> held;  // read, not yet handed over
  double heldSeconds = 0;
  for (bool ended = false; !ended;) {
    // The engine has a chunk ready once the audio before it, at the engine's pace, is made.
    const std::chrono::duration<double> due(audioPerSecond_ > 0 ? secondsRead / audioPerSecond_ : 0.0);
    std::optional<DecodedAudio> chunk;
    if (!waitUntilAbandoned(start + std::chrono::duration_cast<SessionClock::Clock::duration>(due))) {
      chunk = job.source->read(wakeFd_);
    }
    if (!chunk && abandoned()) {
      report.outcome = FeedOutcome::Stopped;
      break;
    }
    ended = !chunk;
    if (chunk) {
      secondsRead += chunk->seconds;
      heldSeconds += chunk->seconds;
      held.push_back(std::move(*chunk));
    }
    if (!started && !ended && heldSeconds < leadSeconds_) continue;
    // An empty input is a sentence too: its empty first chunk ends it at once.
    if (!started && held.empty()) held.emplace_back();
    for (size_t index = 0; index < held.size() && report.outcome == FeedOutcome::Whole; ++index) {
      if (job.delegate->runOutReached()) {
        refuse(held, index);
        break;
      }
      if (abandoned()) {
        report.outcome = FeedOutcome::Stopped;
        break;
      }
      const AudioBufPlayerError result = handOver(job, held[index], !started);
      if (result == AudioBufPlayerError_OK) {
        started = true;
        continue;
      }
      report.error = result;
      if (result == AudioBufPlayerError_STOPPED) {
        report.outcome = FeedOutcome::Stopped;
      } else if (!started) {
        report.outcome = FeedOutcome::FailedAtStart;
      } else if (result == AudioBufPlayerError_SWITCH_FORMAT) {
        // Every chunk has the sentence's format: the refusal means the run-out point was reached.
        refuse(held, index);
      } else {
        report.outcome = FeedOutcome::FailedLater;
      }
    }
    if (report.outcome != FeedOutcome::Whole) break;
    held.clear();
    heldSeconds = 0;
  }
  report.t = clock_.now();
  events_->push(std::move(report));
}
