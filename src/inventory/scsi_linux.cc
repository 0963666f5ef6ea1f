#include "inventory/scsi_linux.h"

#include <dirent.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string_view>
#include <vector>

#include "base/dir_handle.h"
#include "base/small_file.h"

namespace {

// A malformed file never makes us hold more than this of one line.
constexpr std::size_t kMaxLine = 4096;

// The kernel pads each text of the Vendor line to its field width (8, 16, 4);
// a text that is shorter anyway ends where the next label begins.
std::string takeField(std::string_view line, std::string_view label, std::size_t width,
                      std::string_view next) {
  const auto at = line.find(label);
  if (at == std::string_view::npos) return {};
  const std::size_t start = at + label.size();
  std::size_t end = std::min(start + width, line.size());
  if (!next.empty()) {
    const auto n = line.find(next, start);
    if (n != std::string_view::npos && n < end) end = n;
  }
  return std::string(line.substr(start, end - start));
}

// The number after label, or nullopt when the line has none.
std::optional<unsigned long> numberAfter(std::string_view line, std::string_view label) {
  const auto at = line.find(label);
  if (at == std::string_view::npos) return std::nullopt;
  const std::string rest(line.substr(at + label.size()));
  char* end = nullptr;
  const unsigned long v = std::strtoul(rest.c_str(), &end, 10);
  if (end == rest.c_str()) return std::nullopt;
  return v;
}

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

// "H:C:T:L" and nothing more; the bus also lists hosts and targets.
std::optional<std::array<unsigned, 4>> deviceAddress(const char* name) {
  std::array<unsigned, 4> a{};
  int used = 0;
  if (std::sscanf(name, "%u:%u:%u:%u%n", &a[0], &a[1], &a[2], &a[3], &used) != 4 ||
      name[used] != '\0' || name[0] < '0' || name[0] > '9')
    return std::nullopt;
  return a;
}

}  // namespace

CScsiLinux::CScsiLinux(HostRoots roots) : roots_(std::move(roots)) {}

int CScsiLinux::enumSCSIDevices() {
  if (readProcListing(roots_.procPath("/scsi/scsi")) == 0) return 0;
  readSysDevices(roots_.sysPath("/bus/scsi/devices"));
  return 0;
}

int CScsiLinux::readProcListing(const std::string& path) {
  const auto text = readSmallFile(path, 1 << 20);
  if (!text) return -1;
  parseProcListing(*text);
  return 0;
}

void CScsiLinux::parseProcListing(const std::string& text) {
  std::istringstream in(text);

  // "Host: scsi0 Channel: 00 Id: 00 Lun: 00" opens a device; its Vendor and
  // Type lines follow.
  scsi_dev dev;
  bool open = false;
  const auto flush = [&] {
    if (open) addSCSIDevice(&dev);
    open = false;
  };
  std::string line;
  while (std::getline(in, line)) {
    if (line.size() > kMaxLine) line.resize(kMaxLine);
    const std::string_view view(line);
    const std::string_view trimmed = view.substr(std::min(view.find_first_not_of(' '), view.size()));
    if (startsWith(trimmed, "Host:")) {
      flush();
      dev = scsi_dev{};
      dev.type = kUnknownType;
      dev.id = static_cast<unsigned char>(numberAfter(view, "Id:").value_or(0));
      open = true;
    } else if (open && startsWith(trimmed, "Vendor:")) {
      dev.vendor = takeField(view, "Vendor: ", 8, " Model: ");
      dev.product = takeField(view, " Model: ", 16, " Rev: ");
      dev.revision = takeField(view, " Rev: ", 4, {});
    } else if (open && startsWith(trimmed, "Type:")) {
      typeLookup(line, dev.type);
    }
  }
  flush();
}

int CScsiLinux::readSysDevices(const std::string& dir) {
  DirHandle d(opendir(dir.c_str()));
  if (!d) return -1;
  std::vector<std::pair<std::array<unsigned, 4>, std::string>> found;
  while (const dirent* e = readdir(d.get())) {
    if (const auto address = deviceAddress(e->d_name)) found.emplace_back(*address, e->d_name);
  }
  d.reset();
  // Directory order is arbitrary; list as the kernel numbers them.
  std::sort(found.begin(), found.end());

  for (const auto& [address, name] : found) {
    const std::string base = dir + "/" + name + "/";
    scsi_dev dev;
    dev.id = static_cast<unsigned char>(address[2]);
    dev.type = kUnknownType;
    if (const auto type = readFirstLine(base + "type")) {
      char* end = nullptr;
      const long code = std::strtol(type->c_str(), &end, 10);
      if (end != type->c_str() && code >= 0 && code <= 0xFF) dev.type = static_cast<unsigned char>(code);
    }
    dev.vendor = readFirstLine(base + "vendor").value_or("");
    dev.product = readFirstLine(base + "model").value_or("");
    dev.revision = readFirstLine(base + "rev").value_or("");
    addSCSIDevice(&dev);
  }
  return 0;
}
