// A bufplay session: the player, the producer feeding it, and the main loop that reacts to the
// player's reports, the --at script, the keys and the signals.
//
// Threads: the main loop (everything in this class), the producer's thread (Producer.h), and the
// player's and platform's threads, which reach the main loop only through the EventQueue.
//
// Sentences play one after the other: the next is fed once the current one has ended (finished,
// failed, stopped, or ended by bufplay), unless a pause or a stop holds the session.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "EventLog.h"
#include "EventQueue.h"
#include "LiveDisplay.h"
#include "Options.h"
#include "Producer.h"
#include "SentenceRecord.h"
#include "SessionClock.h"
#include "SignalWatch.h"
#include "TerminalKeys.h"
#include "Timeline.h"

// Where a session shows what happens; every part is optional.
struct SessionViews {
  std::unique_ptr<EventLog> eventLog;
  std::unique_ptr<Timeline> timeline;
  std::unique_ptr<LiveDisplay> display;
  std::unique_ptr<TerminalKeys> keys;
};

class Session {
 public:
  Session(const Options& options, const std::vector<std::unique_ptr<SentenceSource>>& sources,
          std::shared_ptr<AudioBufPlayer> player, SignalWatch& signals, SessionViews views);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Plays every sentence and returns bufplay's exit status.
  int run();

 private:
  SentenceRecord& current() { return records_[currentIndex_]; }
  const SentenceRecord& current() const { return records_[currentIndex_]; }

  // The loop's steps.
  void waitForWork();
  void onSignal(int signal);
  void onKey(char key);
  void onEvent(const SessionEvent& event);
  void onFeedEnded(const SessionEvent& event);
  void runDueActions();
  bool nextActionWaitsForProducer() const;
  void perform(const ScriptedAction& action);
  void checkHolds();

  // Sentences.
  void beginSentence(size_t index);
  void endSentence(SentenceRecord::End end);
  // Ends the sentence under way with an empty first chunk, as a client that gives up on it does;
  // its PlaybackFinished then ends it here as `end`. A note says why on standard error.
  void endWithEmptyChunk(SentenceRecord::End end, const std::string& note);
  // Begins the next sentence unless a pause or a stop holds the session, or ends the session.
  void advance();

  // Controls.
  // The volume the user chose; the player gets 0 while muted.
  void setVolume(float volume);
  // The volume as the live line shows it; empty at full volume.
  std::string volumeText() const;
  void pause();
  void resume();
  void stopPlayer();
  void quit(int exitStatus);
  // Nothing more will be played; the loop ends once late error reports are in.
  void finish();
  bool done() const;

  void reportProblem(const std::string& text);
  // Still feeding the current sentence: its FeedEnded has not arrived.
  bool producerBusy() const { return lastFeedEnded_ < current().number; }
  bool scriptFinished() const { return nextAction_ == options_.script.size(); }
  // Whether a pause can still be lifted: by a key, or by a step of the script.
  bool canStillResume() const { return keys_ || !scriptFinished(); }
  bool startScheduled() const;
  bool awaitingErrorReport() const;
  double silenceLimit(const SentenceRecord& sentence) const;

  const Options& options_;
  const SessionClock clock_;
  const std::shared_ptr<EventQueue> events_;
  const std::shared_ptr<AudioBufPlayer> player_;
  std::unique_ptr<Producer> producer_;
  SignalWatch& signals_;
  std::unique_ptr<EventLog> eventLog_;
  std::unique_ptr<Timeline> timeline_;
  std::unique_ptr<LiveDisplay> display_;
  std::unique_ptr<TerminalKeys> keys_;

  std::vector<SentenceRecord> records_;
  size_t currentIndex_ = 0;
  bool sentenceActive_ = false;  // begun and not ended
  int lastFeedEnded_ = 0;  // the last sentence whose FeedEnded arrived
  std::shared_ptr<SentenceDelegate> delegate_;  // the current sentence's
  std::optional<SentenceRecord::End> requestedEnd_;  // set when bufplay ended the current sentence
  bool userPaused_ = false;
  float volume_ = 1;
  bool muted_ = false;
  bool playerStopped_ = false;  // by the script's stop, until its start
  std::optional<double> heldSince_;  // t since the current hold began
  double lastReleasedAt_ = 0;  // t when the last hold ended
  size_t nextAction_ = 0;
  bool playerErrors_ = false;
  std::optional<int> exitStatus_;  // set by a signal or a quit
  std::optional<double> finishedAt_;  // t when nothing more was left to play
};
