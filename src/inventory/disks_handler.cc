#include "inventory/disks_handler.h"

#include "inventory/hd_info.h"
#include "session/list_batches.h"
#include "session/session.h"
#include "varlo/volume_records.h"

int sendDiskList(CHDInfo& info, const RecordSink& sink) {
  using varlo::varlo_volume;
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

void sendDiskData(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  CHDInfo disks;
  sendDiskList(disks, session.sink());
}
