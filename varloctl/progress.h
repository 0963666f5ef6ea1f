// The live line of a long command ("scanned N files" of a census, the bytes
// of a transfer), redrawn in place with a carriage return. Only on a
// terminal, and never with --json: a disabled Progress writes nothing, so
// commands report to it unconditionally.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

namespace varloctl {

class Progress {
 public:
  Progress(std::ostream& out, bool enabled) : out_(out), enabled_(enabled) {}
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // "scanned N files", with " on WHERE" when where is not empty.
  void files(std::uint32_t scanned, std::string_view where = {});
  // "sent 1.5 of 12.0 MB, 3.2 MB/s": bytes so far, of total, in seconds.
  void transfer(std::uint64_t sent, std::uint64_t total, double seconds);
  // Any text, e.g. "measuring /home".
  void text(std::string_view line);
  // Blanks the line, so that what is printed next starts on a clean one.
  void clear();

 private:
  std::ostream& out_;
  void show(std::string text);

  bool enabled_;
  std::string shown_;  // the text on the line now
};

}  // namespace varloctl
