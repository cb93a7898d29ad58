// The terminal view of a session: one line per sentence, redrawn in place while it plays (a bar of
// played against received seconds, and the state), left on screen when it ends, and a summary line
// at the end of the session. Main loop only.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "SentenceRecord.h"

class LiveDisplay {
 public:
  LiveDisplay(FILE* out, size_t sentenceCount);

  // Redraws the sentence's line when it has changed, at most ten times a second unless its state
  // changed. now: seconds on the session's clock; userPaused: the session holds a pause of its own;
  // volume: what the user set with the keys, as the line shows it ("muted", "volume 60%"; empty at
  // full volume).
  void show(const SentenceRecord& sentence, bool userPaused, const std::string& volume, double now);
  // Draws the sentence's final line and moves to the next line.
  void finish(const SentenceRecord& sentence);
  // Makes room for a message on the terminal; the next show() draws the line again.
  void clearLine();
  // One line for the whole session.
  void summarize(const std::vector<SentenceRecord>& sentences, double wallSeconds);

 private:
  // The sentence's line; when it must fit the terminal, the file name gives way.
  std::string line(const SentenceRecord& sentence, const std::string& state, bool fitTerminal) const;

  FILE* const out_;
  const size_t sentenceCount_;
  std::string shownLine_;  // what the terminal shows now; empty after clearLine
  std::string shownState_;
  double shownAt_ = -1;
};

// How much audio the player refused because the producer was slower than playback, as the summary
// says it; empty when none was.
std::string RefusedAudioText(const std::vector<SentenceRecord>& sentences);
