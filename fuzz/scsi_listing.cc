// The kernel's /proc/scsi/scsi listing. Each "Host:" line opens at most one
// device; vendor, model and revision never outgrow their columns; every
// type is a code of the console's table; and each device goes through its
// wire record unchanged. A listing shaped as the kernel writes it gives back
// the devices it was made of.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "inventory/scsi_linux.h"
#include "varlo/device_records.h"

using varlo::varlo_scsi;

namespace {

// One column of the Vendor line as the kernel prints it: exactly width
// bytes, each below a blank printed as a blank.
std::string column(const std::uint8_t*& data, std::size_t& size, std::size_t width) {
  std::string out;
  for (std::size_t i = 0; i < width; ++i) {
    const char c = size > 0 ? static_cast<char>(*data) : ' ';
    if (size > 0) {
      ++data;
      --size;
    }
    out += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
  }
  return out;
}

// A listing shaped as the kernel writes it, from the input: each device
// must come back with its id, its type and its columns as printed. Columns
// that hold the text of a label are left to the checks above.
void kernelShaped(const std::uint8_t* data, std::size_t size) {
  struct Device {
    unsigned id;
    unsigned char type;
    std::string vendor, product, revision;
  };
  std::vector<Device> devices;
  std::string listing = "Attached devices:\n";
  while (size >= 2 && devices.size() < 4) {
    Device d;
    d.id = data[0];
    d.type = static_cast<unsigned char>(data[1] % varlo::kScsiDeviceTypes.size());
    data += 2;
    size -= 2;
    d.vendor = column(data, size, 8);
    d.product = column(data, size, 16);
    d.revision = column(data, size, 4);
    for (const std::string* c : {&d.vendor, &d.product, &d.revision})
      for (const char* label : {"Vendor:", "Model:", "Rev:", "Host:", "Type:"})
        if (c->find(label) != std::string::npos) return;
    char host[80];
    std::snprintf(host, sizeof host, "Host: scsi%zu Channel: 00 Id: %02u Lun: 00\n", devices.size(),
                  d.id);
    listing += host;
    listing += "  Vendor: " + d.vendor + " Model: " + d.product + " Rev: " + d.revision + "\n";
    listing += std::string("  Type:   ") + varlo::kScsiDeviceTypes[d.type] +
               "                    ANSI  SCSI revision: 05\n";
    devices.push_back(std::move(d));
  }

  CScsiLinux scsi;
  scsi.parseProcListing(listing);
  if (scsi.size() != devices.size()) __builtin_trap();
  unsigned char id = 0, type = 0;
  std::string vendor, product, revision;
  for (const Device& d : devices) {
    if (scsi.getNextDevice(id, type, vendor, product, revision) != 0) __builtin_trap();
    // Code 11 shares its name with 10, which is found first.
    const unsigned char wantType = d.type == 11 ? 10 : d.type;
    if (id != d.id || type != wantType) __builtin_trap();
    if (vendor != d.vendor || product != d.product || revision != d.revision) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kernelShaped(data, size);
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
