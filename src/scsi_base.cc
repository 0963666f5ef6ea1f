#include "scsi_base.h"

#include <new>

#include "varlo/device_records.h"
#include "vllog.h"

using varlo::varlo_scsi;
using varlo::varlo_scsis;

void CScsiBase::typeLookup(const std::string& text, unsigned char& type) {
  for (std::size_t code = 0; code < scsiDeviceTypes.size(); ++code) {
    if (text.find(scsiDeviceTypes[code]) != std::string::npos) {
      type = static_cast<unsigned char>(code);
      return;
    }
  }
}

void CScsiBase::addSCSIDevice(const scsi_dev* dev) {
  if (dev == nullptr) return;
  try {
    devices_.push_back(*dev);
  } catch (const std::bad_alloc&) {
    Log->LogMessage("Could not allocate memory for scsi device.");
  }
}

int CScsiBase::getNextDevice(unsigned char& id, unsigned char& type, std::string& vendor,
                             std::string& product, std::string& revision) {
  if (pos_ >= devices_.size()) return -1;
  const scsi_dev& d = devices_[pos_++];
  id = d.id;
  type = d.type;
  vendor = d.vendor;
  product = d.product;
  revision = d.revision;
  return 0;
}

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
