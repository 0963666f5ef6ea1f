// Physical disks (block devices of sysfs) and mounted volumes (mountinfo),
// for the Hard Disk and Volumes commands.
#pragma once

#include <sys/statvfs.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "base/host_roots.h"

// What CHDInfo asks about a mount point. The agent asks through the bounded
// mount probe, so a dead server costs a command at most its bound; tests
// answer for paths that do not exist on the machine running them.
struct MountProbe {
  static constexpr int kUnreachable = -1;
  // True for a directory (links followed, as the mount itself was);
  // nullopt when the mount did not answer.
  std::function<std::optional<bool>(const std::string& path)> isDirectory;
  // 0, the error number, or kUnreachable when the mount did not answer.
  std::function<int(const std::string& path, struct statvfs& out)> statvfs;

  // The host's mounts; a stop request ends a wait at once.
  static MountProbe system(std::stop_token stop = {});
};

class CHDInfo {
 public:
  struct drive {
    std::string name;        // kernel name: sda, nvme0n1, vda
    std::uint64_t size = 0;  // bytes
  };

  struct partition {
    bool local = true;
    bool reachable = true;  // false: the mount did not answer; sizes are 0
    std::string name;       // the mount point
    std::string path;       // the mount point
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;
  };

  explicit CHDInfo(HostRoots roots = {}, MountProbe probe = MountProbe::system());

  // Entries of SYSROOT/block that have a "device" link and are not
  // removable, in name order; always 0.
  int enumHardDisks();

  // Mounts in mount order; always 0. Left out: pseudo file systems (but
  // zfs, and network file systems), squashfs images, and mounts whose mount
  // point is not a directory; the root is always listed. With localOnly no
  // remote mount is even asked. A mount whose size cannot be read is kept
  // with size 0 (logged).
  int enumPartitions(bool localOnly = false);

  // 0 with the next entry, -1 at the end.
  int getNextHardDisk(std::string& name, unsigned long long& size);
  int getNextPartition(std::string& name, std::string& path, bool& local, unsigned long long& total,
                       unsigned long long& free);
  int getNextPartition(std::string& name, bool& local, unsigned long long& total,
                       unsigned long long& free);
  int getNextPartition(partition& out);

  // File-system types taken as remote (and listed even though they need no
  // block device).
  static bool isNetworkFileSystem(const std::string& type);
  // "\040" and the other octal escapes of a mountinfo path, decoded.
  static std::string unescapeMountPath(const std::string& field);

  struct Mount {
    std::string mountPoint;
    std::string type;
  };
  // Mount point (field 5) and type (the first field after the "-"
  // separator) of one mountinfo line; false for a line without them.
  static bool parseMountLine(const std::string& line, Mount& out);

 private:
  HostRoots roots_;
  MountProbe probe_;
  std::vector<partition> partitions_;
  std::size_t partitionPos_ = 0;
  std::vector<drive> drives_;
  std::size_t drivePos_ = 0;
};
