#include "inventory/volumes_handler.h"

#include "inventory/hd_info.h"
#include "session/list_batches.h"
#include "session/session.h"
#include "varlo/volume_records.h"

int sendVolumeList(CHDInfo& info, std::uint16_t command, const RecordSink& sink) {
  using varlo::varlo_volume;
  ListBatches<varlo_volume> batches(command, sink);
  const bool localOnly = command == varlo::kLocalVolumesCommand;
  info.enumPartitions(localOnly);
  CHDInfo::partition p;
  while (info.getNextPartition(p) == 0) {
    // An empty volume is left out; one that did not answer is sent with
    // sizes 0, so the console sees it is there.
    if (p.totalBytes == 0 && p.reachable) continue;
    if (localOnly && !p.local) continue;
    varlo_volume entry;
    entry.name = p.name;
    entry.remote = !p.local;
    entry.total = varlo_volume::units(p.totalBytes);
    entry.free = varlo_volume::units(p.freeBytes);
    if (batches.add(entry) != 0) return -1;
  }
  return batches.finish();
}

void sendVolumeData(Session& session, std::uint16_t code) {
  if (!session.connected()) return;
  CHDInfo disks(HostRoots{}, MountProbe::system(session.stopToken()));
  sendVolumeList(disks, code, session.sink());
}
