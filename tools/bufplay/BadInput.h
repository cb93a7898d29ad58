// A problem with what the user asked for (an option, a file): bufplay names it in one line and
// exits with status 2 before any sound is made.
#pragma once

#include <stdexcept>

class BadInput : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
