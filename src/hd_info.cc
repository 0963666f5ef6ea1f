#include "hd_info.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include "unique_fd.h"
#include "util.h"
#include "varlo/volume_records.h"
#include "list_batches.h"
#include "vllog.h"

using varlo::varlo_list_header;
using varlo::varlo_volume;

namespace {

// The first line of a small sysfs attribute, without its newline. Opened
// non-blocking so that a FIFO in its place cannot stall the worker.
bool readAttribute(const std::string& path, std::string& value) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd.valid()) return false;
  char buf[128];
  ssize_t n;
  do {
    n = ::read(fd.get(), buf, sizeof buf);
  } while (n < 0 && errno == EINTR);
  value.assign(buf, n > 0 ? static_cast<std::size_t>(n) : 0);
  value.resize(std::min(value.find('\n'), value.size()));
  return true;
}

// Decimal digits only; anything else (or an overflow) is no number.
bool parseCount(const std::string& text, std::uint64_t& out) {
  if (text.empty()) return false;
  std::uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
    if (v > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) return false;
    v = v * 10 + digit;
  }
  out = v;
  return true;
}

std::vector<std::string> splitBlanks(const std::string& line) {
  std::vector<std::string> out;
  std::istringstream in(line);
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

// The kinds that need no block device ("nodev" in /proc/filesystems).
std::set<std::string> pseudoFileSystems(const std::string& path) {
  std::set<std::string> out;
  std::ifstream in(path);
  if (!in) {
    const int err = errno;
    Log->LogMessage("Could not read the file system list " + path +
                    ".  Error: " + std::to_string(err));
    return out;
  }
  for (std::string line; std::getline(in, line);) {
    const auto words = splitBlanks(line);
    if (words.size() == 2 && words[0] == "nodev") out.insert(words[1]);
  }
  return out;
}

struct Mount {
  std::string mountPoint;
  std::string type;
};

// Mount point (field 5) and type (the first field after the "-" separator).
bool parseMountLine(const std::string& line, Mount& out) {
  const auto words = splitBlanks(line);
  if (words.size() < 7) return false;
  const auto sep = std::find(words.begin() + 6, words.end(), "-");
  if (sep == words.end() || sep + 1 == words.end()) return false;
  out.mountPoint = CHDInfo::unescapeMountPath(words[4]);
  out.type = *(sep + 1);
  return !out.mountPoint.empty();
}

std::uint64_t product(std::uint64_t a, std::uint64_t b) {
  if (a != 0 && b > std::numeric_limits<std::uint64_t>::max() / a)
    return std::numeric_limits<std::uint64_t>::max();
  return a * b;
}

}  // namespace

MountProbe MountProbe::system() {
  MountProbe p;
  p.isDirectory = [](const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  };
  p.statvfs = [](const std::string& path, struct statvfs& out) {
    return ::statvfs(path.c_str(), &out) == 0 ? 0 : errno;
  };
  return p;
}

CHDInfo::CHDInfo(std::string sysRoot, std::string mountInfo, std::string filesystems,
                 MountProbe probe)
    : sysRoot_(std::move(sysRoot)),
      mountInfo_(std::move(mountInfo)),
      filesystems_(std::move(filesystems)),
      probe_(std::move(probe)) {}

bool CHDInfo::isNetworkFileSystem(const std::string& type) {
  static const std::set<std::string> kRemote = {
      "nfs",  "nfs4",      "cifs", "smb3",   "smbfs",      "ncpfs",         "afs",
      "ceph", "glusterfs", "9p",   "lustre", "fuse.sshfs", "fuse.glusterfs"};
  return kRemote.count(type) != 0;
}

std::string CHDInfo::unescapeMountPath(const std::string& field) {
  std::string out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3' &&
        field[i + 2] >= '0' && field[i + 2] <= '7' && field[i + 3] >= '0' && field[i + 3] <= '7') {
      out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                               (field[i + 3] - '0'));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

int CHDInfo::enumHardDisks() {
  drives_.clear();
  drivePos_ = 0;
  const std::string blockDir = sysRoot_ + "/block";
  DirHandle dir;
  try {
    dir.reset(Util::openDir(blockDir));
  } catch (const std::string& message) {
    Log->LogMessage(message);
    return 0;
  }
  std::vector<std::string> names;
  for (std::string name; Util::getNextFile(dir.get(), name) == 0;)
    if (name != "." && name != "..") names.push_back(name);
  std::sort(names.begin(), names.end());

  for (const std::string& name : names) {
    const std::string base = blockDir + "/" + name;
    struct stat st;
    // Loop, RAM, zram and device-mapper disks have no device behind them.
    if (::lstat((base + "/device").c_str(), &st) != 0) continue;
    std::string removable, sectors;
    if (!readAttribute(base + "/removable", removable) || removable != "0") continue;
    if (!readAttribute(base + "/size", sectors)) continue;
    drive d{name, 0};
    std::uint64_t count = 0;
    if (parseCount(sectors, count)) d.size = product(count, 512);  // sysfs counts 512-byte sectors
    drives_.push_back(std::move(d));
  }
  return 0;
}

int CHDInfo::enumPartitions() {
  partitions_.clear();
  partitionPos_ = 0;
  std::ifstream in(mountInfo_);
  if (!in) {
    const int err = errno;
    Log->LogMessage("Could not read the mount table " + mountInfo_ +
                    ".  Error: " + std::to_string(err));
    return 0;
  }
  const std::set<std::string> pseudo = pseudoFileSystems(filesystems_);
  for (std::string line; std::getline(in, line);) {
    Mount m;
    if (!parseMountLine(line, m)) continue;
    const bool remote = isNetworkFileSystem(m.type);
    // "fuse.sshfs" is a mount of the kind "fuse".
    const std::string kind = m.type.substr(0, m.type.find('.'));
    if (!remote && pseudo.count(kind) != 0) continue;
    // A file bind-mounted over another file is no volume.
    if (!probe_.isDirectory || !probe_.isDirectory(m.mountPoint)) continue;

    partition p;
    p.local = !remote;
    p.name = m.mountPoint;
    p.path = m.mountPoint;
    struct statvfs sv {};
    const int err = probe_.statvfs ? probe_.statvfs(m.mountPoint, sv) : ENOSYS;
    if (err == 0) {
      p.totalBytes = product(sv.f_blocks, sv.f_frsize);
      p.freeBytes = product(sv.f_bavail, sv.f_frsize);
    } else {
      Log->LogMessage("Could not get the size of volume " + m.mountPoint +
                      ".  Error: " + std::to_string(err));
    }
    partitions_.push_back(std::move(p));
  }
  return 0;
}

int CHDInfo::getNextHardDisk(std::string& name, unsigned long long& size) {
  if (drivePos_ >= drives_.size()) return -1;
  const drive& d = drives_[drivePos_++];
  name = d.name;
  size = d.size;
  return 0;
}

int CHDInfo::getNextPartition(std::string& name, std::string& path, bool& local,
                              unsigned long long& total, unsigned long long& free) {
  if (partitionPos_ >= partitions_.size()) return -1;
  const partition& p = partitions_[partitionPos_++];
  name = p.name;
  path = p.path;
  local = p.local;
  total = p.totalBytes;
  free = p.freeBytes;
  return 0;
}

int CHDInfo::getNextPartition(std::string& name, bool& local, unsigned long long& total,
                              unsigned long long& free) {
  std::string path;
  return getNextPartition(name, path, local, total, free);
}

int sendDiskList(CHDInfo& info, const RecordSink& sink) {
  if (!sink) return -1;
  ListBatches<varlo_volume> batches(varlo::kHardDiskCommand, sink);
  info.enumHardDisks();
  std::string name;
  unsigned long long size = 0;
  while (info.getNextHardDisk(name, size) == 0) {
    if (size == 0) continue;
    varlo_volume entry;
    entry.name = name;
    entry.remote = false;
    entry.total = varlo_volume::units(size);
    if (batches.add(entry) != 0) return -1;
  }
  return batches.finish();
}

int sendVolumeList(CHDInfo& info, std::uint16_t command, const RecordSink& sink) {
  if (!sink) return -1;
  ListBatches<varlo_volume> batches(command, sink);
  info.enumPartitions();
  std::string name;
  bool local = true;
  unsigned long long total = 0, free = 0;
  while (info.getNextPartition(name, local, total, free) == 0) {
    if (total == 0) continue;
    if (command == varlo::kLocalVolumesCommand && !local) continue;
    varlo_volume entry;
    entry.name = name;
    entry.remote = !local;
    entry.total = varlo_volume::units(total);
    entry.free = varlo_volume::units(free);
    if (batches.add(entry) != 0) return -1;
  }
  return batches.finish();
}
