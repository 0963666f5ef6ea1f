// The host's mounts in mount order, each with what kind of file system it
// is: what the volume list shows and where a walk of the disks may go.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "base/host_roots.h"

struct MountEntry {
  enum class Kind {
    kDisk,     // lies on this host's disks (zfs included)
    kPseudo,   // needs no block device: proc, sysfs, tmpfs, autofs ...
    kNetwork,  // a remote share, which may be dead
    kImage,    // a read-only squashfs image (snaps), one mount each
  };
  std::string mountPoint;
  std::string type;
  Kind kind = Kind::kDisk;
};

class MountTable {
 public:
  // PROC/self/mountinfo classified by PROC/filesystems; empty (logged) when
  // the table cannot be read.
  static std::vector<MountEntry> read(const HostRoots& roots);

  // The kind of a mount of this type, given the kinds marked "nodev".
  static MountEntry::Kind classify(const std::string& type, const std::set<std::string>& nodev);
};
