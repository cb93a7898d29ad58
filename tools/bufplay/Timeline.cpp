#include "Timeline.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <sstream>
#include <utility>

#include "BadInput.h"

namespace {

constexpr double kLeft = 70;
constexpr double kRight = 20;
constexpr double kPlotWidth = 860;
constexpr double kTop = 50;
constexpr double kLaneHeight = 130;
constexpr double kLaneGap = 40;
constexpr double kBottom = 40;
// Rough glyph widths of the sans-serif font, to keep labels inside the picture.
constexpr double kCharWidth12Bold = 7.5;
constexpr double kCharWidth10 = 5.8;

const char* HoldColour(AudioBufPlayerPauseSource source) {
  switch (source) {
    case AudioBufPlayerPauseSource_USER:
      return "#bdbdbd";
    case AudioBufPlayerPauseSource_INTERRUPT:
      return "#ffcc80";
    case AudioBufPlayerPauseSource_BACKGROUND:
      return "#ce93d8";
  }
  return "#bdbdbd";
}

std::string XmlText(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

// The text, shortened from the front ("...") to fit `width` pixels.
std::string Fitted(const std::string& text, double width, double charWidth) {
  const size_t most = size_t(std::max(4.0, width / charWidth));
  return text.size() <= most ? text : "..." + text.substr(text.size() - (most - 3));
}

// A step of 1, 2 or 5 times a power of ten that gives about `count` ticks over `range`.
double TickStep(double range, int count) {
  const double raw = range / count;
  const double power = std::pow(10.0, std::floor(std::log10(raw)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (factor * power >= raw) return factor * power;
  }
  return 10 * power;
}

}  // namespace

Timeline::Timeline(const std::string& path, const std::vector<std::string>& sentenceNames, double offset)
    : out_(path, std::ios::trunc), offset_(offset) {
  if (!out_) throw BadInput("cannot write " + path + ": " + std::strerror(errno));
  for (const std::string& name : sentenceNames) lanes_.push_back({name, {}, {}, {}, {}, false});
}

void Timeline::add(const SessionEvent& event) {
  Lane& lane = lanes_.at(size_t(event.sentence - 1));
  switch (event.kind) {
    case SessionEvent::TotalLength:
      lane.received.push_back({event.t, event.seconds - offset_});
      break;
    case SessionEvent::Progress:
      lane.played.push_back({event.t, event.seconds - offset_});
      break;
    case SessionEvent::AboutToEnd:
      if (!std::exchange(lane.aboutToEndMarked, true)) lane.marks.push_back({event.t, "about to end"});
      break;
    case SessionEvent::Finished:
      lane.marks.push_back({event.t, "finished"});
      break;
    case SessionEvent::Error:
      lane.marks.push_back({event.t, "error " + std::to_string(int(event.error))});
      break;
    case SessionEvent::Paused:
      if (lane.holds.empty() || lane.holds.back().to >= 0) lane.holds.push_back({event.t, -1, event.source});
      break;
    case SessionEvent::Resumed:
      if (!lane.holds.empty() && lane.holds.back().to < 0) lane.holds.back().to = event.t;
      break;
    case SessionEvent::WillStart:
    case SessionEvent::FeedEnded:
      break;
  }
}

void Timeline::markEnd(int sentence, double t, const std::string& label) {
  lanes_.at(size_t(sentence - 1)).marks.push_back({t, label});
}

void Timeline::write(double endTime) {
  const double span = std::max(endTime, 0.1);
  const double height = kTop + double(lanes_.size()) * (kLaneHeight + kLaneGap) + kBottom;
  const auto x = [span](double t) { return kLeft + t / span * kPlotWidth; };
  std::ostringstream svg;
  svg.precision(5);
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kLeft + kPlotWidth + kRight << "\" height=\""
      << height << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
      << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
      << "<text x=\"" << kLeft << "\" y=\"20\">bufplay session: audio seconds against wall-clock seconds.  "
      << "<tspan fill=\"#1e88e5\">received</tspan>  <tspan fill=\"#2e7d32\">played</tspan>  "
      << "<tspan fill=\"#9e9e9e\">paused</tspan>  <tspan fill=\"#fb8c00\">interrupted</tspan>  "
      << "<tspan fill=\"#8e24aa\">background</tspan></text>\n";

  const double timeStep = TickStep(span, 10);
  for (size_t index = 0; index < lanes_.size(); ++index) {
    const Lane& lane = lanes_[index];
    const double top = kTop + double(index) * (kLaneHeight + kLaneGap);
    const double bottom = top + kLaneHeight;
    double most = 0.1;
    for (const auto* series : {&lane.received, &lane.played}) {
      for (const Point& point : *series) most = std::max(most, point.seconds);
    }
    const auto y = [&](double seconds) { return bottom - seconds / most * kLaneHeight; };

    svg << "<text x=\"" << kLeft << "\" y=\"" << top - 6 << "\" font-weight=\"bold\">" << index + 1 << ". "
        << XmlText(Fitted(lane.name, kPlotWidth - 30, kCharWidth12Bold)) << "</text>\n";
    for (const Span& hold : lane.holds) {
      const double to = hold.to < 0 ? endTime : hold.to;
      svg << "<rect x=\"" << x(hold.from) << "\" y=\"" << top << "\" width=\"" << std::max(1.0, x(to) - x(hold.from))
          << "\" height=\"" << kLaneHeight << "\" fill=\"" << HoldColour(hold.source) << "\" opacity=\"0.6\"><title>"
          << PauseSourceName(hold.source) << " pause</title></rect>\n";
    }
    svg << "<rect x=\"" << kLeft << "\" y=\"" << top << "\" width=\"" << kPlotWidth << "\" height=\"" << kLaneHeight
        << "\" fill=\"none\" stroke=\"#616161\"/>\n";
    const double secondsStep = TickStep(most, 4);
    for (double seconds = 0; seconds <= most + 1e-9; seconds += secondsStep) {
      svg << "<text x=\"" << kLeft - 6 << "\" y=\"" << y(seconds) + 4 << "\" text-anchor=\"end\">" << seconds
          << " s</text>\n";
    }
    // Received audio grows in steps when a chunk arrives; played audio is a position that moves on,
    // and stands still while held: its line breaks over a hold instead of pretending slow playback.
    const auto heldBetween = [&](double from, double to) {
      return std::any_of(lane.holds.begin(), lane.holds.end(),
                         [&](const Span& hold) { return hold.from >= from && hold.from < to; });
    };
    const auto polyline = [&](const std::vector<Point>& points, const char* colour, bool steps) {
      if (points.empty()) return;
      const char* const start = "<polyline fill=\"none\" stroke-width=\"2\" stroke=\"";
      svg << start << colour << "\" points=\"";
      double previous = 0;
      double previousT = 0;
      for (const Point& point : points) {
        if (!steps && &point != &points.front() && heldBetween(previousT, point.t)) svg << "\"/>\n" << start << colour << "\" points=\"";
        if (steps) svg << x(point.t) << "," << y(previous) << " ";
        svg << x(point.t) << "," << y(point.seconds) << " ";
        previous = point.seconds;
        previousT = point.t;
      }
      svg << "\"/>\n";
    };
    polyline(lane.received, "#1e88e5", true);
    polyline(lane.played, "#2e7d32", false);
    for (size_t markIndex = 0; markIndex < lane.marks.size(); ++markIndex) {
      const Mark& mark = lane.marks[markIndex];
      const bool runOut = mark.label == "about to end";
      // Marks close together (an error, then the end) keep their labels apart.
      const double labelY = top + 12 * double(1 + markIndex % 3);
      // A label that would run past the right edge is drawn to the left of its line.
      const bool leftOfLine = x(mark.t) + 3 + double(mark.label.size()) * kCharWidth10 > kLeft + kPlotWidth + kRight;
      svg << "<line x1=\"" << x(mark.t) << "\" y1=\"" << top << "\" x2=\"" << x(mark.t) << "\" y2=\"" << bottom
          << "\" stroke=\"" << (runOut ? "#fb8c00" : "#212121") << "\"" << (runOut ? " stroke-dasharray=\"4 3\"" : "")
          << "/><text x=\"" << x(mark.t) + (leftOfLine ? -3 : 3) << "\" y=\"" << labelY << "\" font-size=\"10\""
          << (leftOfLine ? " text-anchor=\"end\"" : "") << ">" << XmlText(mark.label) << "</text>\n";
    }
    for (double t = 0; t <= span + 1e-9; t += timeStep) {
      svg << "<text x=\"" << x(t) << "\" y=\"" << bottom + 14 << "\" text-anchor=\"middle\" font-size=\"10\">" << t
          << "</text>\n";
    }
  }
  svg << "<text x=\"" << kLeft + kPlotWidth / 2 << "\" y=\"" << height - 12
      << "\" text-anchor=\"middle\">wall-clock seconds since the first playData</text>\n</svg>\n";
  out_ << svg.str();
  out_.flush();
}
