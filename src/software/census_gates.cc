#include "software/census_gates.h"

CensusGates::Gates CensusGates::forHost(const std::vector<MountEntry>& mounts) {
  Gates gates;
  for (const MountEntry& m : mounts) {
    if (m.mountPoint == "/") continue;
    // A later mount on the same point hides the earlier one.
    gates[m.mountPoint] =
        m.kind == MountEntry::Kind::kDisk ? CensusWalk::Gate::kProbe : CensusWalk::Gate::kSkip;
  }
  return gates;
}

CensusGates::Gates CensusGates::forPartition(const std::vector<MountEntry>& mounts,
                                             const std::string& root) {
  Gates gates;
  for (const MountEntry& m : mounts)
    if (m.mountPoint != root) gates[m.mountPoint] = CensusWalk::Gate::kSkip;
  return gates;
}
