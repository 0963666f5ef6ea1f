// SCSI devices of a Linux host: the kernel's /proc/scsi/scsi listing where
// the kernel provides it, else the device directories of /sys/bus/scsi.
#pragma once

#include <string>

#include "base/host_roots.h"
#include "inventory/scsi_base.h"

class CScsiLinux : public CScsiBase {
 public:
  // A name no device's type matches is reported with this code ("Unknown").
  static constexpr unsigned char kUnknownType = 10;

  explicit CScsiLinux(HostRoots roots = {});

  // Adds every device found; 0, also when there is none or neither source
  // exists (a host without SCSI).
  int enumSCSIDevices() override;

  // Each parses one source and adds what it finds; -1 when the source
  // cannot be opened, else 0.
  int readProcListing(const std::string& path);
  // The kernel's listing, already read.
  void parseProcListing(const std::string& text);
  int readSysDevices(const std::string& dir);

 private:
  HostRoots roots_;
};
