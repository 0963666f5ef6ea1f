// PCI functions of a Linux host, through libpci's sysfs method: every
// function, in libpci's order, named from the PCI ID database.
#pragma once

#include <cstdint>
#include <string>

#include "base/host_roots.h"
#include "inventory/pci_base.h"

class CPciLinux : public CPciBase<pcilinux> {
 public:
  static constexpr std::size_t kMaxName = 32;

  // libpci reads sysRoot/bus/pci. An empty idsFile means the host's ID
  // database (pci.ids, then udev's hwdb); a named file is the only source
  // of names, so a test's names do not depend on what the host has.
  explicit CPciLinux(HostRoots roots = {}, std::string idsFile = {});

  // Rebuilds the list and rewinds; always 0. A bus that cannot be read is
  // logged and gives an empty list; a device whose identity or class cannot
  // be read is listed without it (logged).
  int enumPCIDevices() override;

  // The next device; 0, or -1 at the end.
  int getNextDevice(std::uint16_t& vendor, std::string& name, std::string& slot,
                    std::string& type);

  // "DDDD:BB:DD.F", the kernel's name for a function, in lower-case hex.
  static std::string address(int domain, int bus, int dev, int func);

 private:
  HostRoots roots_;
  std::string idsFile_;
};
