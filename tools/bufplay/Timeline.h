// --timeline: a picture of the session as SVG. One lane per sentence over a shared wall-clock axis:
// the received and played seconds (the played line breaks where a pause or interruption held it),
// the holds as shaded spans, and lines where the sentence reached its run-out point and where it
// ended. Labels are kept inside the picture. Main loop only.
#pragma once

#include <fstream>
#include <string>
#include <vector>

#include "SessionEvent.h"

class Timeline {
 public:
  // Opens the file at once, so that a path that cannot be written is reported before playing.
  // offset: the requests' offset, taken off the reported seconds so that each lane starts at 0.
  // Throws BadInput.
  Timeline(const std::string& path, const std::vector<std::string>& sentenceNames, double offset);

  void add(const SessionEvent& event);
  // A sentence that ended without PlaybackFinished: stopped, or refused at its start.
  void markEnd(int sentence, double t, const std::string& label);
  // Draws the picture, closing spans still open at endTime.
  void write(double endTime);

 private:
  struct Point {
    double t;
    double seconds;
  };
  struct Span {
    double from;
    double to;  // negative while open
    AudioBufPlayerPauseSource source;
  };
  struct Mark {
    double t;
    std::string label;
  };
  struct Lane {
    std::string name;
    std::vector<Point> received;
    std::vector<Point> played;
    std::vector<Span> holds;
    std::vector<Mark> marks;
    bool aboutToEndMarked = false;
  };

  std::ofstream out_;
  const double offset_;
  std::vector<Lane> lanes_;
};
