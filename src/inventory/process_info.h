// The running processes, read one by one from the stat files of /proc, for
// the Processes command.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "base/host_roots.h"
#include "varlo/process_records.h"

class CProcessInfo {
 public:
  explicit CProcessInfo(HostRoots roots = {});

  // Rebuilds the list from the numeric directories of the proc root, in
  // directory order, and rewinds. Processes whose stat file cannot be read
  // or parsed are left out (parseStat logs why).
  void enumProcesses();

  void rewind() { pos_ = 0; }

  // The next collected entry; 0, or -1 when the list is exhausted.
  int getNext(varlo::varlo_proc& out);

  // One process from its stat file (the path given whole); 0, or -1 (logged).
  static int parseStat(const std::string& path, varlo::varlo_proc& out);
  // The same from the file's text. The name runs from the '(' after the pid
  // to the last ')' (the kernel writes it raw, blanks and ')' included), is
  // then cut at its first ')' and sent without the '('. cpuSecs counts the
  // waited-for children's time only. On failure, the number of the eight
  // conversions that succeeded.
  static int parseStatText(const std::string& text, varlo::varlo_proc& out, int& stored);

  // True if some collected entry is named exactly `name`.
  bool isRunning(const std::string& name) const;

  void clearList();
  std::size_t size() const { return list_.size(); }

 private:
  HostRoots roots_;
  std::vector<varlo::varlo_proc> list_;
  std::size_t pos_ = 0;
};
