#include "process_info.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <sstream>
#include <vector>

#include "unique_fd.h"
#include "util.h"
#include "list_batches.h"
#include "vllog.h"

using varlo::varlo_list_header;
using varlo::varlo_proc;

namespace {

// A stat line is a few hundred bytes; anything past this is not one.
constexpr std::size_t kMaxStatBytes = 8192;

// The whole file, or what could be read of it before an error.
std::string readSome(int fd) {
  std::string text;
  char buf[1024];
  while (text.size() < kMaxStatBytes) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buf, static_cast<std::size_t>(n));
  }
  if (text.size() > kMaxStatBytes) text.resize(kMaxStatBytes);
  return text;
}

std::uint32_t capped(unsigned long long v) {
  return static_cast<std::uint32_t>(
      std::min<unsigned long long>(v, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

CProcessInfo::CProcessInfo(std::string procRoot) : procRoot_(std::move(procRoot)) {}

void CProcessInfo::clearList() {
  list_.clear();
  pos_ = 0;
}

void CProcessInfo::enumProcesses() {
  clearList();
  DirHandle dir;
  try {
    dir.reset(Util::openDir(procRoot_));
  } catch (const std::string& message) {
    Log->LogMessage(message);
    return;
  }
  std::string name;
  while (Util::getNextFile(dir.get(), name) == 0) {
    bool numbered = false;
    try {
      numbered = Util::isProcessDir(name, procRoot_);
    } catch (const std::string&) {
      // Gone between readdir and stat: the process has ended.
    }
    if (!numbered) continue;
    varlo_proc entry;
    if (parseStat(procRoot_ + "/" + name + "/stat", entry) == 0) list_.push_back(std::move(entry));
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
  long ticks = sysconf(_SC_CLK_TCK);
  if (ticks <= 0) ticks = 1;

  // Non-blocking, so a FIFO in place of a stat file reads as empty instead
  // of waiting for a writer.
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd.valid()) {
    const int err = errno;
    std::stringstream line;
    line << "Could not open file " << path << " Error: " << err;
    Log->LogMessage(line);
    return -1;
  }
  const std::string text = readSome(fd.get());

  // The name token can be no longer than the text it comes from.
  std::vector<char> name(text.size() + 1, '\0');
  int pid = 0;
  unsigned long utime = 0, stime = 0, vsize = 0;
  long cutime = 0, cstime = 0;
  unsigned long long start = 0;
  int stored = std::sscanf(text.c_str(),
                           "%d %s %*c %*d %*d %*d %*d %*d %*u %*u \t\t\t\t%*u %*u %*u %lu %lu %ld "
                           "%ld %*d %*d %*d %*d %llu %lu",
                           &pid, name.data(), &utime, &stime, &cutime, &cstime, &start, &vsize);
  if (stored < 0) stored = 0;  // nothing at all to scan
  if (stored < 8) {
    std::stringstream line;
    line << "Error in process information.  Needed 8 got " << stored << ".  Process: " << path;
    Log->LogMessage(line);
    return -1;
  }

  std::string comm(name.data());
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

int sendProcessList(CProcessInfo& info, const RecordSink& sink) {
  if (!sink) return -1;
  ListBatches<varlo_proc> batches(varlo::kProcessesCommand, sink);
  info.enumProcesses();
  info.rewind();
  varlo_proc entry;
  while (info.getNext(entry) == 0)
    if (batches.add(entry) != 0) return -1;
  return batches.finish();
}
