#include "inventory/scsi_base.h"

#include <new>

#include "varlo/device_records.h"
#include "core/vllog.h"

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
