// Where a census may go among the host's mounts.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "inventory/mount_table.h"
#include "software/census_walk.h"

class CensusGates {
 public:
  using Gates = std::map<std::string, CensusWalk::Gate>;

  // The census of the whole host counts its own disks: it keeps out of
  // pseudo file systems, network shares and read-only images, and enters
  // another disk's mount only once the mount has answered.
  static Gates forHost(const std::vector<MountEntry>& mounts);

  // A partition's census stays on that partition: every mount point below
  // its root is another partition or pseudo, and is never entered.
  static Gates forPartition(const std::vector<MountEntry>& mounts, const std::string& root);
};
