// Physical disks (block devices of sysfs) and mounted volumes (mountinfo),
// for the Hard Disk and Volumes commands.
#pragma once

#include <sys/statvfs.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host_paths.h"
#include "record_sink.h"

// What CHDInfo asks about a mount point; tests answer for paths that do not
// exist on the machine running them.
struct MountProbe {
  // True for a directory (links followed, as the mount itself was).
  std::function<bool(const std::string& path)> isDirectory;
  // 0, or the error number.
  std::function<int(const std::string& path, struct statvfs& out)> statvfs;

  static MountProbe system();
};

class CHDInfo {
 public:
  struct drive {
    std::string name;        // kernel name: sda, nvme0n1, vda
    std::uint64_t size = 0;  // bytes
  };

  struct partition {
    bool local = true;
    std::string name;  // the mount point
    std::string path;  // the mount point
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;
  };

  explicit CHDInfo(std::string sysRoot = host_paths::kSysRoot,
                   std::string mountInfo = host_paths::kMountInfo,
                   std::string filesystems = host_paths::kProcFilesystems,
                   MountProbe probe = MountProbe::system());

  // Entries of SYSROOT/block that have a "device" link and are not
  // removable, in name order; always 0.
  int enumHardDisks();

  // Mounts in mount order, less those of pseudo file systems and those whose
  // mount point is not a directory; always 0. A mount whose size cannot be
  // read is kept with size 0 (logged).
  int enumPartitions();

  // 0 with the next entry, -1 at the end.
  int getNextHardDisk(std::string& name, unsigned long long& size);
  int getNextPartition(std::string& name, std::string& path, bool& local, unsigned long long& total,
                       unsigned long long& free);
  int getNextPartition(std::string& name, bool& local, unsigned long long& total,
                       unsigned long long& free);

  // File-system types taken as remote (and listed even though they need no
  // block device).
  static bool isNetworkFileSystem(const std::string& type);
  // "\040" and the other octal escapes of a mountinfo path, decoded.
  static std::string unescapeMountPath(const std::string& field);

 private:
  std::string sysRoot_;
  std::string mountInfo_;
  std::string filesystems_;
  MountProbe probe_;
  std::vector<partition> partitions_;
  std::size_t partitionPos_ = 0;
  std::vector<drive> drives_;
  std::size_t drivePos_ = 0;
};

// The Hard Disk command (26): every disk whose size is not 0. Each batch of
// ten goes as two blocks, header and entries; the closing header has last 1.
// 0, or -1 as soon as the sink refuses a block.
int sendDiskList(CHDInfo& info, const RecordSink& sink);

// The Volumes commands: every volume whose total size is not 0, and with
// command 25 only the local ones. The headers echo `command`.
int sendVolumeList(CHDInfo& info, std::uint16_t command, const RecordSink& sink);
