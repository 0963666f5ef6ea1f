#include "inventory/process_info.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <sstream>
#include <vector>

#include "base/dir_handle.h"
#include "base/small_file.h"
#include "base/util.h"
#include "core/vllog.h"

using varlo::varlo_proc;

namespace {

// A stat line is a few hundred bytes; anything past this is not one.
constexpr std::size_t kMaxStatBytes = 8192;

std::uint32_t capped(unsigned long long v) {
  return static_cast<std::uint32_t>(
      std::min<unsigned long long>(v, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

CProcessInfo::CProcessInfo(HostRoots roots) : roots_(std::move(roots)) {}

void CProcessInfo::clearList() {
  list_.clear();
  pos_ = 0;
}

void CProcessInfo::enumProcesses() {
  clearList();
  DirHandle dir;
  try {
    dir.reset(Util::openDir(roots_.proc));
  } catch (const std::string& message) {
    Log->LogMessage(message);
    return;
  }
  std::string name;
  while (Util::getNextFile(dir.get(), name) == 0) {
    bool numbered = false;
    try {
      numbered = Util::isProcessDir(name, roots_.proc);
    } catch (const std::string&) {
      // Gone between readdir and stat: the process has ended.
    }
    if (!numbered) continue;
    varlo_proc entry;
    if (parseStat(roots_.proc + "/" + name + "/stat", entry) == 0) list_.push_back(std::move(entry));
  }
}

int CProcessInfo::getNext(varlo_proc& out) {
  if (pos_ >= list_.size()) return -1;
  out = list_[pos_++];
  return 0;
}

bool CProcessInfo::isRunning(const std::string& name) const {
  return std::any_of(list_.begin(), list_.end(),
                     [&](const varlo_proc& e) { return e.name == name; });
}

int CProcessInfo::parseStat(const std::string& path, varlo_proc& out) {
  out = varlo_proc{};
  const auto text = readSmallFile(path, kMaxStatBytes);
  if (!text) {
    const int err = errno;
    std::stringstream line;
    line << "Could not open file " << path << " Error: " << err;
    Log->LogMessage(line);
    return -1;
  }
  int stored = 0;
  if (parseStatText(*text, out, stored) == 0) return 0;
  std::stringstream line;
  line << "Error in process information.  Needed 8 got " << stored << ".  Process: " << path;
  Log->LogMessage(line);
  return -1;
}

int CProcessInfo::parseStatText(const std::string& text, varlo_proc& out, int& stored) {
  out = varlo_proc{};
  stored = 0;
  long ticks = sysconf(_SC_CLK_TCK);
  if (ticks <= 0) ticks = 1;

  // The text up to its first zero byte, as a C string reader sees it.
  const std::string line = text.substr(0, text.find('\0'));
  int pid = 0;
  int used = 0;
  if (std::sscanf(line.c_str(), "%d%n", &pid, &used) != 1) return -1;
  stored = 1;

  // The name: from the '(' to the last ')' of the line; a name written
  // without parentheses is one blank-delimited word.
  std::size_t start = line.find_first_not_of(" \t\n\v\f\r", static_cast<std::size_t>(used));
  if (start == std::string::npos) return -1;
  std::size_t end;
  const std::size_t close = line.rfind(')');
  if (line[start] == '(' && close != std::string::npos && close > start) {
    end = close + 1;
  } else {
    end = std::min(line.find_first_of(" \t\n\v\f\r", start), line.size());
  }
  std::string comm = line.substr(start, end - start);
  stored = 2;

  unsigned long utime = 0, stime = 0, vsize = 0;
  long cutime = 0, cstime = 0;
  unsigned long long startTime = 0;
  const int rest = std::sscanf(line.c_str() + end,
                               " %*c %*d %*d %*d %*d %*d %*u %*u \t\t\t\t%*u %*u %*u %lu %lu %ld "
                               "%ld %*d %*d %*d %*d %llu %lu",
                               &utime, &stime, &cutime, &cstime, &startTime, &vsize);
  if (rest > 0) stored += rest;
  if (stored < 8) return -1;

  comm.resize(std::min(comm.find(')'), comm.size()));
  if (!comm.empty() && comm.front() == '(') comm.erase(0, 1);
  comm.resize(std::min(comm.size(), varlo_proc::kMaxName));

  out.name = std::move(comm);
  out.reserved = 0;
  out.type = varlo_proc::kTypeAppl;
  // A 64-bit host can exceed the 32-bit fields; they saturate.
  out.size = capped(vsize);
  out.id = static_cast<std::uint32_t>(pid);
  const unsigned long childTicks =
      static_cast<unsigned long>(cutime) + static_cast<unsigned long>(cstime);
  out.cpuSecs = capped(childTicks / static_cast<unsigned long>(ticks));
  return 0;
}
