// Which service an init script starts, read from its DAEMON= and NAME=
// assignments without running it.
#pragma once

#include <string>
#include <string_view>

class CInitScript {
 public:
  enum class Verdict {
    kService,   // service holds the name
    kNoName,    // neither a DAEMON= nor a NAME= of two characters or more
    kVariable,  // the name is a shell variable's: unknown without running it
  };

  // Scans the whitespace-separated words: a DAEMON= word counts until the
  // first NAME= word, which ends the scan. The daemon's path wins over the
  // name; the service is the text after its last '/'.
  static Verdict serviceOf(std::string_view script, std::string& service);
};
