#include "Session.h"

#include <poll.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>

#include "Audio/Platform/Application.h"
#include "Audio/Platform/AudioSession.h"
#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "ExitStatus.h"
#include "TerminalLine.h"

namespace {

// How long the session waits for a sign of life before it gives up on a sentence, and for a late
// error report before it exits.
constexpr double kQuietSeconds = 2.0;
// The live line is redrawn, and the session's checks run, at least this often.
constexpr double kTickSeconds = 0.1;
// How much + and - change the volume.
constexpr float kVolumeStep = 0.1f;

// Results of playData and appendAudioData that the player also reports to the delegate, with a
// description that says more than the code.
bool ReportedToDelegateToo(AudioBufPlayerError error) { return error == AudioBufPlayerError_FAILED_PARSE_STREAM; }

const char* RefusalText(AudioBufPlayerError error) {
  switch (error) {
    case AudioBufPlayerError_UNSUPPORTED_FORMAT:
      return "the player does not play this format";
    case AudioBufPlayerError_FAILED_INIT_STREAM:
      return "the player could not open an MP3 stream";
    default:
      return "the player refused the audio";
  }
}

}  // namespace

Session::Session(const Options& options, const std::vector<std::unique_ptr<SentenceSource>>& sources,
                 std::shared_ptr<AudioBufPlayer> player, SignalWatch& signals, SessionViews views)
    : options_(options),
      events_(std::make_shared<EventQueue>()),
      player_(std::move(player)),
      producer_(std::make_unique<Producer>(player_, options.pace * options.speed, options.lead, options.offset, clock_,
                                           events_)),
      signals_(signals),
      eventLog_(std::move(views.eventLog)),
      timeline_(std::move(views.timeline)),
      display_(std::move(views.display)),
      keys_(std::move(views.keys)) {
  for (const std::unique_ptr<SentenceSource>& source : sources) records_.emplace_back(*source, int(records_.size()) + 1);
}

Session::~Session() {
  // A feeding call may still wait inside the player; stopping it lets the producer's thread end.
  player_->stop();
  producer_.reset();
}

int Session::run() {
  setVolume(options_.volume);
  player_->start();
  beginSentence(0);
  while (!done()) {
    waitForWork();
    if (const int signal = signals_.take()) onSignal(signal);
    if (keys_) {
      for (const char key : keys_->read()) onKey(key);
    }
    for (const SessionEvent& event : events_->drain()) onEvent(event);
    runDueActions();
    checkHolds();
    if (display_ && sentenceActive_) display_->show(current(), userPaused_, volumeText(), clock_.now());
  }
  const double end = clock_.now();
  player_->stop();
  if (display_) display_->summarize(records_, end);
  if (timeline_) timeline_->write(end);
  if (exitStatus_) return *exitStatus_;
  if (playerErrors_) return kExitPlayerError;
  const bool refused = std::any_of(records_.begin(), records_.end(),
                                   [](const SentenceRecord& sentence) { return sentence.refusedSeconds > 0; });
  return refused ? kExitAudioRefused : kExitFinished;
}

void Session::waitForWork() {
  double timeout = kTickSeconds;
  // A start that waits for the producer waits for its FeedEnded event, which wakes the poll.
  if (!scriptFinished() && !nextActionWaitsForProducer()) {
    timeout = std::min(timeout, options_.script[nextAction_].at - clock_.now());
  }
  std::vector<pollfd> watched{{events_->fd(), POLLIN, 0}, {signals_.fd(), POLLIN, 0}};
  if (keys_) watched.push_back({keys_->fd(), POLLIN, 0});
  poll(watched.data(), watched.size(), int(std::max(0.0, timeout) * 1000 + 0.999));
}

void Session::onSignal(int signal) {
  if (signal == SIGTSTP) {
    if (keys_) keys_->restore();
    SignalWatch::suspendSelf();
    if (keys_) keys_->enterRawMode();
    return;
  }
  quit(128 + signal);
}

void Session::onKey(char key) {
  if (key == ' ') {
    userPaused_ ? resume() : pause();
  } else if (key == 'q' || key == 'Q') {
    quit(kExitFinished);
  } else if (key == '+' || key == '=') {
    setVolume(std::min(1.0f, volume_ + kVolumeStep));
  } else if (key == '-') {
    setVolume(std::max(0.0f, volume_ - kVolumeStep));
  } else if (key == 'm' || key == 'M') {
    muted_ = !muted_;
    setVolume(volume_);
  }
}

void Session::onEvent(const SessionEvent& event) {
  if (eventLog_) eventLog_->write(event);
  if (timeline_) timeline_->add(event);
  SentenceRecord& sentence = records_.at(size_t(event.sentence - 1));
  const bool isCurrent = sentenceActive_ && &sentence == &current();
  switch (event.kind) {
    case SessionEvent::WillStart:
      break;
    case SessionEvent::TotalLength:
      sentence.received = event.seconds - options_.offset;
      break;
    case SessionEvent::Progress:
      sentence.played = event.seconds - options_.offset;
      // A hold before the first report would hide in the estimate; then it is left unknown.
      if (sentence.lastSoundAt < 0 && !sentence.heldBeforeSound) {
        const double firstFrameAt = event.t - sentence.played / options_.speed;
        sentence.firstAudioAfter = std::max(0.0, firstFrameAt - sentence.startedAt);
      }
      sentence.lastSoundAt = event.t;
      // The sentence's queue is the newest: the next one opens only after this one finished.
      if (AudioQueueCounters counters; AudioQueueGetCounters(AudioOutputNewestQueue(), &counters) == noErr) {
        sentence.underruns = counters.underruns;
      }
      break;
    case SessionEvent::AboutToEnd:
      sentence.ending = true;
      break;
    case SessionEvent::Finished:
      if (!isCurrent) break;
      // What the producer still holds would start a new sentence. Past the run-out point it finds
      // that out by itself and counts the rest as refused; otherwise it must stop.
      if (producerBusy() && !delegate_->runOutReached()) producer_->abandon();
      endSentence(requestedEnd_.value_or(SentenceRecord::End::Finished));
      break;
    case SessionEvent::Error:
      playerErrors_ = true;
      sentence.errorReported = true;
      reportProblem(sentence.source->name() + ": " + event.description);
      break;
    case SessionEvent::Paused:
      ++sentence.pauses;
      if (event.source != AudioBufPlayerPauseSource_USER) sentence.systemHold = event.source;
      break;
    case SessionEvent::Resumed:
      sentence.systemHold.reset();
      break;
    case SessionEvent::FeedEnded:
      onFeedEnded(event);
      break;
  }
}

void Session::onFeedEnded(const SessionEvent& event) {
  lastFeedEnded_ = event.sentence;
  SentenceRecord& sentence = records_.at(size_t(event.sentence - 1));
  const bool isCurrent = sentenceActive_ && &sentence == &current();
  sentence.fedAt = event.t;
  switch (event.outcome) {
    case FeedOutcome::Whole:
    case FeedOutcome::Stopped:
      return;
    case FeedOutcome::RunOutRefused:
      sentence.refusedSeconds = event.seconds;
      // On a terminal the summary says so.
      if (!display_) reportProblem(sentence.source->name() + ": " + RefusedAudioText({sentence}));
      return;
    case FeedOutcome::FailedAtStart:
    case FeedOutcome::FailedLater:
      break;
  }
  playerErrors_ = true;
  sentence.errorExpected = ReportedToDelegateToo(event.error);
  if (!sentence.errorExpected) reportProblem(sentence.source->name() + ": " + RefusalText(event.error));
  if (!isCurrent) return;
  if (event.outcome == FeedOutcome::FailedAtStart) {
    endSentence(SentenceRecord::End::Failed);  // the player has reset the request itself
  } else {
    endWithEmptyChunk(SentenceRecord::End::Failed, "");
  }
}

void Session::runDueActions() {
  while (!finishedAt_ && !scriptFinished() && !nextActionWaitsForProducer() &&
         options_.script[nextAction_].at <= clock_.now()) {
    perform(options_.script[nextAction_++]);
  }
}

bool Session::nextActionWaitsForProducer() const {
  // The stopped sentence's producer must be done with it first: an append after the start would
  // begin a new sentence with the rest of the old one.
  return options_.script[nextAction_].kind == ScriptedAction::Start && playerStopped_ && producerBusy();
}

void Session::perform(const ScriptedAction& action) {
  switch (action.kind) {
    case ScriptedAction::Pause:
      pause();
      break;
    case ScriptedAction::Resume:
      resume();
      break;
    case ScriptedAction::Stop:
      stopPlayer();
      break;
    case ScriptedAction::Start:
      player_->start();
      playerStopped_ = false;
      if (!sentenceActive_) advance();
      break;
    case ScriptedAction::Volume:
      setVolume(action.volume);
      break;
    case ScriptedAction::InterruptBegin:
      AudioSession::sharedInstance().beginInterruption();
      break;
    case ScriptedAction::InterruptEnd:
      AudioSession::sharedInstance().endInterruption();
      break;
    case ScriptedAction::RouteChange:
      AudioSession::sharedInstance().changeRoute();
      break;
    case ScriptedAction::Background:
      Application::sharedApplication().setInBackground(true);
      break;
    case ScriptedAction::Foreground:
      Application::sharedApplication().setInBackground(false);
      // A client resumes what the background held when it comes back to the front.
      if (sentenceActive_ && current().systemHold == AudioBufPlayerPauseSource_BACKGROUND && !userPaused_) {
        player_->resume();
      }
      break;
  }
}

void Session::checkHolds() {
  const double now = clock_.now();
  const bool held = userPaused_ || (sentenceActive_ && current().systemHold);
  if (held && !heldSince_) heldSince_ = now;
  if (held && sentenceActive_ && current().lastSoundAt < 0) current().heldBeforeSound = true;
  if (!held && heldSince_) {
    heldSince_.reset();
    lastReleasedAt_ = now;
  }
  if (finishedAt_) return;
  if (held) {
    if (!canStillResume() && now - *heldSince_ >= kQuietSeconds) {
      reportProblem(std::string(userPaused_ ? "paused" : "interrupted") +
                    " with nothing scheduled to resume playback; stopping");
      quit(kExitFinished);
    }
    return;
  }
  if (!sentenceActive_ || requestedEnd_ || !current().fedAt) return;
  const SentenceRecord& sentence = current();
  const double limit = silenceLimit(sentence);
  if (now - std::max({*sentence.fedAt, sentence.lastSoundAt, lastReleasedAt_}) >= limit) {
    char text[160];
    std::snprintf(text, sizeof text, "no sound for %.1f s after the whole input was handed over; ending the sentence",
                  limit);
    endWithEmptyChunk(SentenceRecord::End::EndedByBufplay, sentence.source->name() + ": " + text);
  }
}

double Session::silenceLimit(const SentenceRecord& sentence) const {
  return kQuietSeconds + sentence.source->longestBufferSeconds() / options_.speed;
}

void Session::beginSentence(size_t index) {
  currentIndex_ = index;
  sentenceActive_ = true;
  requestedEnd_.reset();
  SentenceRecord& sentence = current();
  sentence.startedAt = clock_.now();
  delegate_ = std::make_shared<SentenceDelegate>(sentence.number, clock_, events_);
  producer_->feed(*sentence.source, sentence.number, delegate_);
}

void Session::endSentence(SentenceRecord::End end) {
  SentenceRecord& sentence = current();
  sentence.end = end;
  sentenceActive_ = false;
  // PlaybackFinished marks the timeline for the other ends.
  if (timeline_ && (end == SentenceRecord::End::Stopped || end == SentenceRecord::End::Failed)) {
    timeline_->markEnd(sentence.number, clock_.now(), EndStateName(end));
  }
  if (display_) display_->finish(sentence);
  advance();
}

void Session::endWithEmptyChunk(SentenceRecord::End end, const std::string& note) {
  requestedEnd_ = end;
  if (!note.empty()) reportProblem(note);
  // The player ends the request at once and reports PlaybackFinished, which ends the sentence here.
  player_->playData({}, current().source->format(), nullptr, options_.offset);
}

void Session::advance() {
  if (finishedAt_) return;
  if (playerStopped_) {
    if (!startScheduled()) finish();
    return;
  }
  if (userPaused_) return;
  if (currentIndex_ + 1 >= records_.size()) {
    finish();
    return;
  }
  beginSentence(currentIndex_ + 1);
}

void Session::setVolume(float volume) {
  volume_ = volume;
  player_->setVolume(muted_ ? 0.0f : volume_);
}

std::string Session::volumeText() const {
  if (muted_) return "muted";
  return volume_ < 1 ? "volume " + std::to_string(int(std::lround(volume_ * 100))) + "%" : "";
}

void Session::pause() {
  userPaused_ = true;
  player_->pause();
}

void Session::resume() {
  userPaused_ = false;
  player_->resume();
  if (!sentenceActive_) advance();
}

void Session::stopPlayer() {
  producer_->abandon();
  player_->stop();
  playerStopped_ = true;
  if (sentenceActive_) endSentence(SentenceRecord::End::Stopped);
}

void Session::quit(int exitStatus) {
  exitStatus_ = exitStatus;
  if (display_) display_->clearLine();
  stopPlayer();
  finish();
}

void Session::finish() {
  if (!finishedAt_) finishedAt_ = clock_.now();
}

bool Session::done() const {
  if (!finishedAt_ || producerBusy()) return false;
  return exitStatus_ || !awaitingErrorReport() || clock_.now() - *finishedAt_ >= kQuietSeconds;
}

bool Session::startScheduled() const {
  return std::any_of(options_.script.begin() + std::ptrdiff_t(nextAction_), options_.script.end(),
                     [](const ScriptedAction& action) { return action.kind == ScriptedAction::Start; });
}

bool Session::awaitingErrorReport() const {
  return std::any_of(records_.begin(), records_.end(), [](const SentenceRecord& sentence) {
    return sentence.errorExpected && !sentence.errorReported;
  });
}

void Session::reportProblem(const std::string& text) {
  TerminalLine::instance().printAbove(stderr, "bufplay: " + text + "\n");
}
