#include "SentenceDelegate.h"

#include <utility>

SentenceDelegate::SentenceDelegate(int sentence, const SessionClock& clock, std::shared_ptr<EventQueue> events)
    : sentence_(sentence), clock_(clock), events_(std::move(events)) {}

SessionEvent SentenceDelegate::stamped(SessionEvent::Kind kind) const {
  SessionEvent event;
  event.t = clock_.now();
  event.sentence = sentence_;
  event.kind = kind;
  return event;
}

void SentenceDelegate::playerWillStartPlayback(AudioBufPlayer*) { events_->push(stamped(SessionEvent::WillStart)); }

void SentenceDelegate::updatedTotalLength(double length, AudioBufPlayer*) {
  SessionEvent event = stamped(SessionEvent::TotalLength);
  event.seconds = length;
  events_->push(std::move(event));
}

void SentenceDelegate::playProgressChanged(double position, AudioBufPlayer*) {
  SessionEvent event = stamped(SessionEvent::Progress);
  event.seconds = position;
  events_->push(std::move(event));
}

void SentenceDelegate::aboutToEnd(AudioBufPlayer*) {
  runOutReached_.store(true, std::memory_order_release);
  events_->push(stamped(SessionEvent::AboutToEnd));
}

void SentenceDelegate::PlaybackFinished(AudioBufPlayer*) { events_->push(stamped(SessionEvent::Finished)); }

void SentenceDelegate::PlayerError(AudioBufPlayerError error, AudioBufPlayer*, const std::string& description) {
  SessionEvent event = stamped(SessionEvent::Error);
  event.error = error;
  event.description = description;
  events_->push(std::move(event));
}

void SentenceDelegate::PlayerWasPaused(AudioBufPlayerPauseSource source, AudioBufPlayer*) {
  SessionEvent event = stamped(SessionEvent::Paused);
  event.source = source;
  events_->push(std::move(event));
}

void SentenceDelegate::PlayerWasResumed(AudioBufPlayer*) { events_->push(stamped(SessionEvent::Resumed)); }
