// The SCSI devices of the machine, as the SCSI command lists them; each
// platform's collector fills the list through addSCSIDevice.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "session/record_sink.h"
#include "varlo/device_records.h"

class CScsiBase {
 public:
  struct scsi_dev {
    unsigned char id = 0;
    unsigned char type = 0;
    std::string vendor;
    std::string product;
    std::string revision;
  };

  // Peripheral device type names, indexed by code, as the console knows them.
  static constexpr const auto& scsiDeviceTypes = varlo::kScsiDeviceTypes;

  CScsiBase() = default;
  virtual ~CScsiBase() = default;
  CScsiBase(const CScsiBase&) = delete;
  CScsiBase& operator=(const CScsiBase&) = delete;

  // Fills the list; 0 on success.
  virtual int enumSCSIDevices() = 0;

  // Sets type to the lowest code whose name occurs anywhere in text; leaves
  // it alone when none does. Code 11 never results (10 has the same name).
  static void typeLookup(const std::string& text, unsigned char& type);

  // Appends a copy; a null device is ignored.
  void addSCSIDevice(const scsi_dev* dev);

  // The next device in the order added; 0, or -1 at the end.
  int getNextDevice(unsigned char& id, unsigned char& type, std::string& vendor,
                    std::string& product, std::string& revision);

  std::size_t size() const { return devices_.size(); }

 private:
  std::vector<scsi_dev> devices_;
  std::size_t pos_ = 0;
};
