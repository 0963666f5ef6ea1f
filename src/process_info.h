// The running processes, read one by one from the stat files of /proc, for
// the Processes command.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "host_paths.h"
#include "record_sink.h"
#include "varlo/process_records.h"

class CProcessInfo {
 public:
  explicit CProcessInfo(std::string procRoot = host_paths::kProcRoot);

  // Rebuilds the list from the numeric directories of the proc root, in
  // directory order, and rewinds. Processes whose stat file cannot be read
  // or parsed are left out (parseStat logs why).
  void enumProcesses();

  void rewind() { pos_ = 0; }

  // The next collected entry; 0, or -1 when the list is exhausted.
  int getNext(varlo::varlo_proc& out);

  // One process from its stat file (the path given whole); 0, or -1 (logged).
  // The name is cut at its first ')' and sent without the leading '('; a
  // name holding a blank does not scan and fails. cpuSecs counts the
  // waited-for children's time only.
  static int parseStat(const std::string& path, varlo::varlo_proc& out);

  // True if some collected entry is named exactly `name`.
  bool isRunning(const std::string& name) const;

  void clearList();
  std::size_t size() const { return list_.size(); }

 private:
  std::string procRoot_;
  std::vector<varlo::varlo_proc> list_;
  std::size_t pos_ = 0;
};

// The Processes command: collects with info.enumProcesses(), then sends each
// batch of ten as two blocks, the list header and its entries, and closes
// with a header whose last byte is 1 (its entries, if any, after it).
// 0, or -1 as soon as the sink refuses a block.
int sendProcessList(CProcessInfo& info, const RecordSink& sink);
