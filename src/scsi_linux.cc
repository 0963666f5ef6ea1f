#include "scsi_linux.h"

#include <dirent.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <string_view>
#include <tuple>
#include <vector>

namespace {

// A malformed file never makes us hold more than this of one line.
constexpr std::size_t kMaxLine = 4096;

struct DirCloser {
  void operator()(DIR* d) const { closedir(d); }
};

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

// The first line of a sysfs attribute, without its newline.
std::optional<std::string> readAttribute(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::array<char, 256> buf{};
  in.read(buf.data(), buf.size());
  std::string text(buf.data(), static_cast<std::size_t>(in.gcount()));
  text.resize(std::min(text.find('\n'), text.size()));
  return text;
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

CScsiLinux::CScsiLinux(std::string procRoot, std::string sysRoot)
    : procRoot_(std::move(procRoot)), sysRoot_(std::move(sysRoot)) {}

int CScsiLinux::enumSCSIDevices() {
  if (readProcListing(procRoot_ + "/scsi/scsi") == 0) return 0;
  readSysDevices(sysRoot_ + "/bus/scsi/devices");
  return 0;
}

int CScsiLinux::readProcListing(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return -1;

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
    const std::string_view text(line);
    const std::string_view trimmed = text.substr(std::min(text.find_first_not_of(' '), text.size()));
    if (startsWith(trimmed, "Host:")) {
      flush();
      dev = scsi_dev{};
      dev.type = kUnknownType;
      dev.id = static_cast<unsigned char>(numberAfter(text, "Id:").value_or(0));
      open = true;
    } else if (open && startsWith(trimmed, "Vendor:")) {
      dev.vendor = takeField(text, "Vendor: ", 8, " Model: ");
      dev.product = takeField(text, " Model: ", 16, " Rev: ");
      dev.revision = takeField(text, " Rev: ", 4, {});
    } else if (open && startsWith(trimmed, "Type:")) {
      typeLookup(line, dev.type);
    }
  }
  flush();
  return 0;
}

int CScsiLinux::readSysDevices(const std::string& dir) {
  std::unique_ptr<DIR, DirCloser> d(opendir(dir.c_str()));
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
    if (const auto type = readAttribute(base + "type")) {
      char* end = nullptr;
      const long code = std::strtol(type->c_str(), &end, 10);
      if (end != type->c_str() && code >= 0 && code <= 0xFF) dev.type = static_cast<unsigned char>(code);
    }
    dev.vendor = readAttribute(base + "vendor").value_or("");
    dev.product = readAttribute(base + "model").value_or("");
    dev.revision = readAttribute(base + "rev").value_or("");
    addSCSIDevice(&dev);
  }
  return 0;
}
