#include "inventory/hd_info.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <set>
#include <sstream>

#include "base/dir_handle.h"
#include "base/small_file.h"
#include "base/util.h"
#include "core/vllog.h"
#include "inventory/mount_probe.h"
#include "inventory/mount_table.h"

namespace {

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

std::uint64_t product(std::uint64_t a, std::uint64_t b) {
  if (a != 0 && b > std::numeric_limits<std::uint64_t>::max() / a)
    return std::numeric_limits<std::uint64_t>::max();
  return a * b;
}

}  // namespace

MountProbe MountProbe::system(std::stop_token stop) {
  MountProbe p;
  p.isDirectory = [stop](const std::string& path) -> std::optional<bool> {
    const auto answer = CMountProbe::instance().isDirectory(path, stop);
    if (answer.status == CMountProbe::Status::kUnreachable) return std::nullopt;
    return answer.ok() && answer.value;
  };
  p.statvfs = [stop](const std::string& path, struct statvfs& out) {
    const auto answer = CMountProbe::instance().statvfs(path, stop);
    if (answer.status == CMountProbe::Status::kUnreachable) return kUnreachable;
    if (answer.status == CMountProbe::Status::kError) return answer.error;
    out = answer.value;
    return 0;
  };
  return p;
}

CHDInfo::CHDInfo(HostRoots roots, MountProbe probe)
    : roots_(std::move(roots)), probe_(std::move(probe)) {}

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

bool CHDInfo::parseMountLine(const std::string& line, Mount& out) {
  const auto words = splitBlanks(line);
  if (words.size() < 7) return false;
  const auto sep = std::find(words.begin() + 6, words.end(), "-");
  if (sep == words.end() || sep + 1 == words.end()) return false;
  out.mountPoint = unescapeMountPath(words[4]);
  out.type = *(sep + 1);
  return !out.mountPoint.empty();
}

int CHDInfo::enumHardDisks() {
  drives_.clear();
  drivePos_ = 0;
  const std::string blockDir = roots_.sysPath("/block");
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
    const auto removable = readFirstLine(base + "/removable");
    if (!removable || *removable != "0") continue;
    const auto sectors = readFirstLine(base + "/size");
    if (!sectors) continue;
    drive d{name, 0};
    std::uint64_t count = 0;
    if (parseCount(*sectors, count)) d.size = product(count, 512);  // sysfs counts 512-byte sectors
    drives_.push_back(std::move(d));
  }
  return 0;
}

int CHDInfo::enumPartitions(bool localOnly) {
  partitions_.clear();
  partitionPos_ = 0;
  for (const MountEntry& m : MountTable::read(roots_)) {
    const bool remote = m.kind == MountEntry::Kind::kNetwork;
    // The root is a volume whatever it is: an overlay or tmpfs root in a
    // container or a live system.
    const bool root = m.mountPoint == "/";
    if (!root && (m.kind == MountEntry::Kind::kPseudo || m.kind == MountEntry::Kind::kImage))
      continue;
    if (localOnly && remote) continue;

    partition p;
    p.local = !remote;
    p.name = m.mountPoint;
    p.path = m.mountPoint;
    // A file bind-mounted over another file is no volume.
    const std::optional<bool> isDir = probe_.isDirectory ? probe_.isDirectory(m.mountPoint)
                                                         : std::optional<bool>(false);
    if (isDir && !*isDir && !root) continue;
    struct statvfs sv {};
    const int err = !isDir ? MountProbe::kUnreachable
                   : probe_.statvfs ? probe_.statvfs(m.mountPoint, sv)
                                    : ENOSYS;
    if (err == 0) {
      p.totalBytes = product(sv.f_blocks, sv.f_frsize);
      p.freeBytes = product(sv.f_bavail, sv.f_frsize);
    } else if (err == MountProbe::kUnreachable) {
      p.reachable = false;
      Log->LogMessage("Volume " + m.mountPoint + " did not answer; its size is sent as 0");
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

int CHDInfo::getNextPartition(partition& out) {
  if (partitionPos_ >= partitions_.size()) return -1;
  out = partitions_[partitionPos_++];
  return 0;
}

int CHDInfo::getNextPartition(std::string& name, std::string& path, bool& local,
                              unsigned long long& total, unsigned long long& free) {
  partition p;
  if (getNextPartition(p) != 0) return -1;
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
