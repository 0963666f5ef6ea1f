// SCSI (5): 224-byte records of seven device slots each.
#pragma once

#include <cstdint>

#include "session/record_sink.h"

class CScsiBase;
class Session;

// Collects with scsi.enumSCSIDevices(), then sends records of seven slots,
// the last one (last_batch 1) always, even with no device in it. One block
// per record; 0, or -1 as soon as the sink refuses one.
int sendScsiRecords(CScsiBase& scsi, const RecordSink& sink);

void sendSCSIData(Session& session, std::uint16_t code);
