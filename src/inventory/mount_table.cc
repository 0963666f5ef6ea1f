#include "inventory/mount_table.h"

#include <cerrno>
#include <sstream>

#include "base/small_file.h"
#include "core/vllog.h"
#include "inventory/hd_info.h"

namespace {

// A mount table of thousands of entries (containers, snaps) still fits.
constexpr std::size_t kMaxMountTable = 8 << 20;

// The kinds that need no block device ("nodev" in /proc/filesystems).
std::set<std::string> pseudoFileSystems(const std::string& path) {
  std::set<std::string> out;
  const auto text = readSmallFile(path);
  if (!text) {
    const int err = errno;
    Log->LogMessage("Could not read the file system list " + path +
                    ".  Error: " + std::to_string(err));
    return out;
  }
  std::istringstream in(*text);
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string first, second, extra;
    if (words >> first >> second && !(words >> extra) && first == "nodev") out.insert(second);
  }
  return out;
}

}  // namespace

MountEntry::Kind MountTable::classify(const std::string& type,
                                      const std::set<std::string>& nodev) {
  if (CHDInfo::isNetworkFileSystem(type)) return MountEntry::Kind::kNetwork;
  if (type == "squashfs") return MountEntry::Kind::kImage;
  // zfs needs no block device of its own but lies on disks.
  if (type == "zfs") return MountEntry::Kind::kDisk;
  // "fuse.sshfs" is a mount of the kind "fuse".
  if (nodev.count(type.substr(0, type.find('.'))) != 0) return MountEntry::Kind::kPseudo;
  return MountEntry::Kind::kDisk;
}

std::vector<MountEntry> MountTable::read(const HostRoots& roots) {
  std::vector<MountEntry> out;
  const std::string mountInfo = roots.procPath(host_paths::kMountInfo);
  const auto table = readSmallFile(mountInfo, kMaxMountTable);
  if (!table) {
    const int err = errno;
    Log->LogMessage("Could not read the mount table " + mountInfo +
                    ".  Error: " + std::to_string(err));
    return out;
  }
  const std::set<std::string> nodev = pseudoFileSystems(roots.procPath(host_paths::kFilesystems));
  std::istringstream in(*table);
  for (std::string line; std::getline(in, line);) {
    CHDInfo::Mount m;
    if (!CHDInfo::parseMountLine(line, m)) continue;
    out.push_back(MountEntry{m.mountPoint, m.type, classify(m.type, nodev)});
  }
  return out;
}
