// The kernel's /proc/scsi/scsi listing. Each "Host:" line opens at most one
// device; vendor, model and revision never outgrow their columns; every
// type is a code of the console's table; and each device goes through its
// wire record unchanged.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "inventory/scsi_linux.h"
#include "varlo/device_records.h"

using varlo::varlo_scsi;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CScsiLinux scsi;
  scsi.parseProcListing(text);

  std::size_t hosts = 0;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (line.find("Host:") != std::string::npos) ++hosts;
  if (scsi.size() > hosts) __builtin_trap();

  std::size_t listed = 0;
  unsigned char id = 0, type = 0;
  std::string vendor, product, revision;
  while (scsi.getNextDevice(id, type, vendor, product, revision) == 0) {
    ++listed;
    if (type >= varlo::kScsiDeviceTypes.size() || type == 11) __builtin_trap();
    if (vendor.size() > varlo_scsi::Vendor::width || product.size() > varlo_scsi::Product::width ||
        revision.size() > varlo_scsi::Revision::width)
      __builtin_trap();
    if (text.find(vendor) == std::string::npos || text.find(product) == std::string::npos ||
        text.find(revision) == std::string::npos)
      __builtin_trap();

    // The record keeps the texts up to a zero byte; the wire cannot carry one.
    const auto cut = [](const std::string& s) { return s.substr(0, s.find('\0')); };
    std::uint8_t wire[varlo_scsi::kSize];
    std::fill(std::begin(wire), std::end(wire), 0xAA);
    varlo_scsi{id, type, vendor, product, revision}.encodeAt(wire);
    const varlo_scsi back = varlo_scsi::decodeAt(wire);
    if (back.id != id || back.type != type || back.vendor != cut(vendor) ||
        back.product != cut(product) || back.revision != cut(revision))
      __builtin_trap();
  }
  if (listed != scsi.size()) __builtin_trap();
  return 0;
}
