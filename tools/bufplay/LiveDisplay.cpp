#include "LiveDisplay.h"

#include <sys/ioctl.h>

#include <algorithm>

#include "TerminalLine.h"

namespace {

constexpr size_t kBarWidth = 24;
constexpr size_t kFallbackColumns = 80;
constexpr double kRedrawSeconds = 0.1;

size_t TerminalColumns(FILE* out) {
  winsize size{};
  if (ioctl(fileno(out), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return kFallbackColumns;
}

// '#' played, '-' received and waiting, ' ' not received yet.
std::string Bar(double played, double received, double total) {
  const double scale = std::max({total, received, 1e-9});
  const auto cells = [scale](double seconds) {
    return std::min(kBarWidth, size_t(std::max(0.0, seconds) / scale * double(kBarWidth) + 0.5));
  };
  const size_t playedCells = cells(played);
  const size_t receivedCells = std::max(playedCells, cells(received));
  return std::string(playedCells, '#') + std::string(receivedCells - playedCells, '-') +
         std::string(kBarWidth - receivedCells, ' ');
}

// The first progress report comes only once a whole buffer has played, so audio that has arrived
// counts as playing.
const char* LiveState(const SentenceRecord& sentence, bool userPaused) {
  if (userPaused) return "paused";
  if (sentence.systemHold) {
    return *sentence.systemHold == AudioBufPlayerPauseSource_BACKGROUND ? "held in background" : "interrupted";
  }
  if (sentence.ending) return "ending";
  return sentence.received > 0 ? "playing" : "starting";
}

std::string Format(const char* format, double value) {
  char text[32];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

std::string Seconds(double seconds) { return Format("%.2f s", seconds); }

std::string Plural(int count, const char* word) {
  return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

std::string BaseName(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

LiveDisplay::LiveDisplay(FILE* out, size_t sentenceCount) : out_(out), sentenceCount_(sentenceCount) {}

void LiveDisplay::show(const SentenceRecord& sentence, bool userPaused, const std::string& volume, double now) {
  const std::string state = std::string(LiveState(sentence, userPaused)) + (volume.empty() ? "" : ", " + volume);
  if (state == shownState_ && now - shownAt_ < kRedrawSeconds) return;
  const std::string text = line(sentence, state, true);
  if (text == shownLine_) return;
  TerminalLine::instance().draw(out_, text);
  shownLine_ = text;
  shownState_ = state;
  shownAt_ = now;
}

void LiveDisplay::finish(const SentenceRecord& sentence) {
  std::string state = EndStateName(sentence.end);
  if (sentence.firstAudioAfter) state += Format(", first audio after %.0f ms", *sentence.firstAudioAfter * 1000);
  if (sentence.refusedSeconds > 0) state += ", " + Seconds(sentence.refusedSeconds) + " of audio refused";
  // The line stays on screen, so it may wrap on a narrow terminal rather than lose the name.
  clearLine();
  TerminalLine::instance().printAbove(out_, line(sentence, state, false) + "\n");
}

void LiveDisplay::clearLine() {
  TerminalLine::instance().clear();
  shownLine_.clear();
  shownState_.clear();
}

std::string LiveDisplay::line(const SentenceRecord& sentence, const std::string& state, bool fitTerminal) const {
  // Built with append: GCC 12 warns falsely (-Wrestrict) about a chain of string additions here.
  std::string counter = "[";
  counter.append(std::to_string(sentence.number)).append("/").append(std::to_string(sentenceCount_)).append("] ");
  const std::string tail = " [" + Bar(sentence.played, sentence.received, sentence.source->seconds()) + "] " +
                           Format("%.2f", sentence.played) + "/" + Seconds(sentence.received) + "  " + state;
  std::string name = BaseName(sentence.source->name());
  const size_t used = counter.size() + tail.size() + 1;  // the last column stays free: no wrap
  const size_t columns = TerminalColumns(out_);
  const size_t room = columns > used ? columns - used : 0;
  if (fitTerminal && name.size() > room) name = room > 3 ? "..." + name.substr(name.size() - (room - 3)) : "";
  return counter + name + tail;
}

void LiveDisplay::summarize(const std::vector<SentenceRecord>& sentences, double wallSeconds) {
  double played = 0;
  int pauses = 0;
  int finished = 0;
  uint64_t underruns = 0;
  for (const SentenceRecord& sentence : sentences) {
    played += sentence.played;
    pauses += sentence.pauses;
    underruns += sentence.underruns;
    if (sentence.end == SentenceRecord::End::Finished) ++finished;
  }
  std::string summary = std::to_string(finished) + " of " + std::to_string(sentences.size()) + " finished: " +
                        Seconds(played) + " played in " + Seconds(wallSeconds);
  if (!sentences.empty() && sentences.front().firstAudioAfter) {
    summary += Format(", first audio after %.0f ms", *sentences.front().firstAudioAfter * 1000);
  }
  summary += ", " + Plural(pauses, "pause") + ", " + Plural(int(underruns), "underrun");
  const std::string refused = RefusedAudioText(sentences);
  if (!refused.empty()) summary += "; " + refused;
  TerminalLine::instance().printAbove(out_, summary + "\n");
}

std::string RefusedAudioText(const std::vector<SentenceRecord>& sentences) {
  double refused = 0;
  for (const SentenceRecord& sentence : sentences) refused += sentence.refusedSeconds;
  if (refused <= 0) return "";
  return "the producer was slower than playback: the player refused " + Seconds(refused) +
         " of audio that came after the run-out point";
}
