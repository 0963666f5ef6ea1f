#include "inventory/scsi_handler.h"

#include "inventory/scsi_linux.h"
#include "session/session.h"
#include "varlo/device_records.h"

using varlo::varlo_scsi;
using varlo::varlo_scsis;

int sendScsiRecords(CScsiBase& scsi, const RecordSink& sink) {
  if (!sink) return -1;
  // Cleared once; every slot written is written whole, texts zero-filled.
  varlo_scsis::Bytes record{};
  varlo_scsis::prefix(false).encodeInto(record);
  scsi.enumSCSIDevices();

  std::size_t filled = 0;
  varlo_scsi entry;
  while (scsi.getNextDevice(entry.id, entry.type, entry.vendor, entry.product, entry.revision) ==
         0) {
    entry.encodeAt(varlo_scsis::slot(record, filled));
    if (++filled < varlo_scsis::kSlots) continue;
    varlo::put16<varlo_scsis::Count>(record, static_cast<std::uint16_t>(filled));
    if (sink(record.data(), record.size()) != 0) return -1;
    filled = 0;
  }
  varlo::put16<varlo_scsis::Count>(record, static_cast<std::uint16_t>(filled));
  varlo_scsis::prefix(true).encodeInto(record);
  return sink(record.data(), record.size()) != 0 ? -1 : 0;
}

// Unlike the other lists, sent without first asking for a connection: a
// send without one simply fails.
void sendSCSIData(Session& session, std::uint16_t) {
  CScsiLinux scsi;
  sendScsiRecords(scsi, session.sink());
}
