#include "inventory/cpu_info_linux.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <initializer_list>
#include <limits>
#include <optional>
#include <utility>

#include "base/small_file.h"

namespace {

// Only the start of cpuinfo is examined, as with the profiler's output.
constexpr std::size_t kTypeWindow = 4096;
// The first processor's block, where "cpu MHz" lies, is well inside this.
constexpr std::size_t kSpeedWindow = 64 * 1024;
// The platform device's name buffer held 127 characters.
constexpr std::size_t kModelNameMax = 127;
constexpr std::uint64_t kSpeedCap = 0xFFFFFFFF;

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
  return s;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Decimal digits and nothing else; nullopt for anything else or overflow.
std::optional<std::uint64_t> wholeNumber(std::string_view s) {
  if (s.empty()) return std::nullopt;
  std::uint64_t v = 0;
  for (char c : s) {
    if (!isDigit(c)) return std::nullopt;
    const unsigned d = static_cast<unsigned>(c - '0');
    if (v > (std::numeric_limits<std::uint64_t>::max() - d) / 10) return std::nullopt;
    v = v * 10 + d;
  }
  return v;
}

bool allDigits(std::string_view s) {
  for (char c : s)
    if (!isDigit(c)) return false;
  return true;
}

// "2299.998" megahertz -> 2299998000 hertz; the cap when larger.
std::optional<std::uint64_t> megahertzToHertz(std::string_view s) {
  const std::size_t dot = s.find('.');
  const std::string_view whole = s.substr(0, dot);
  const std::string_view fraction = dot == std::string_view::npos ? "" : s.substr(dot + 1);
  if (whole.empty() || !allDigits(whole) || !allDigits(fraction)) return std::nullopt;
  const auto mhz = wholeNumber(whole);  // fails here only by overflowing
  if (!mhz || *mhz > kSpeedCap) return kSpeedCap;
  std::uint64_t hz = *mhz * 1000000;
  std::uint64_t scale = 100000;  // six fractional digits reach one hertz
  for (std::size_t i = 0; i < fraction.size() && scale > 0; ++i, scale /= 10)
    hz += static_cast<std::uint64_t>(fraction[i] - '0') * scale;
  return hz;
}

// The value of the first "key : value" line of cpuinfo whose key is `key`.
std::optional<std::string_view> cpuinfoValue(std::string_view text, std::string_view key) {
  while (!text.empty()) {
    const std::size_t nl = text.find('\n');
    const std::string_view line = text.substr(0, nl);
    text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    if (trimmed(line.substr(0, colon)) == key) return trimmed(line.substr(colon + 1));
  }
  return std::nullopt;
}

// cpuinfo spells "Intel(R) Core(TM) Duo" where the profiler wrote "Intel
// Core Duo"; without the marks the profiler's tests apply unchanged.
std::string withoutTrademarks(std::string_view text) {
  static constexpr std::string_view kMarks[] = {"(R)", "(TM)", "(r)", "(tm)"};
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    bool mark = false;
    for (std::string_view m : kMarks) {
      if (text.substr(i, m.size()) == m) {
        i += m.size();
        mark = true;
        break;
      }
    }
    if (!mark) out += text[i++];
  }
  return out;
}

// A model name file: text up to its first NUL (device-tree strings carry
// one), without surrounding blanks, cut to the name buffer's size.
std::string modelName(const std::string& path) {
  const auto data = readSmallFile(path, 4096);
  if (!data) return {};
  std::string_view s(*data);
  s = s.substr(0, s.find('\0'));
  s = trimmed(s);
  return std::string(s.substr(0, kModelNameMax));
}

}  // namespace

long cpuTypeOfText(std::string_view head) {
  const std::string text = withoutTrademarks(head.substr(0, kTypeWindow));
  // The longer name first, so that a Core Duo is not taken for a Core.
  if (text.find("Intel Core Duo") != std::string::npos) return kIntelCoreDuo;
  if (text.find("Intel Core") != std::string::npos) return kIntelCore;
  return 0;
}

std::optional<std::uint64_t> cpuSpeedOfCpuinfo(std::string_view text) {
  const auto mhz = cpuinfoValue(text, "cpu MHz");
  if (!mhz) return std::nullopt;
  return megahertzToHertz(*mhz);
}

int GetCPUType(long* type, const std::string& cpuinfoPath) {
  if (type == nullptr) return 0;
  *type = 0;
  if (const auto head = readSmallFile(cpuinfoPath, kTypeWindow)) *type = cpuTypeOfText(*head);
  return *type != 0 ? 1 : 0;
}

void DoIOKitModel(std::string& name, const std::string& productNamePath,
                  const std::string& deviceTreeModelPath) {
  std::string found = modelName(productNamePath);
  if (found.empty()) found = modelName(deviceTreeModelPath);
  if (!found.empty()) name = std::move(found);
}

int machineIDForName(std::string_view name) {
  struct Rule {
    std::initializer_list<std::string_view> names;
    int code;
  };
  // Named PowerBook models come before the general rule.
  static const Rule kRules[] = {
      {{"PowerMac7,2"}, 356},
      {{"PowerMac1,1", "PowerMac1,2", "PowerMac3,1"}, 351},
      {{"PowerMac2,1", "PowerMac2,2"}, 352},
      {{"PowerMac4,2"}, 355},
      {{"PowerBook3,1", "PowerBook1,1"}, 353},
      {{"PowerBook"}, 354},
      {{"AAPL,Gossamer"}, 510},
      {{"AAPL,PowerBook1998"}, 312},
      {{"iMac"}, 352},
  };
  for (const Rule& rule : kRules)
    for (std::string_view n : rule.names)
      if (name.find(n) != std::string_view::npos) return rule.code;
  return 351;
}

int getMachineID(const std::string& productNamePath, const std::string& deviceTreeModelPath) {
  // No machine code query exists on Linux: step one always fails.
  const int code = -1;
  std::string name;
  DoIOKitModel(name, productNamePath, deviceTreeModelPath);
  if (name.empty()) return code;
  return machineIDForName(name);
}

CpuInfoLinux::CpuInfoLinux(HostRoots roots) : roots_(std::move(roots)) {}

void CpuInfoLinux::collectCPUInfo() {
  storeCPUSpeed();
  storeCPUType();
  storeMachineType();
  storeCPUCount();
  storeBrandString();
}

void CpuInfoLinux::storeCPUCount() {
  const long n = ::sysconf(_SC_NPROCESSORS_ONLN);
  numCPU_ = n >= 1 && n <= std::numeric_limits<std::int32_t>::max() ? static_cast<std::int32_t>(n)
                                                                     : 1;
}

void CpuInfoLinux::storeCPUSpeed() {
  std::optional<std::uint64_t> hz;
  if (const auto khzText = readSmallFile(sysPath(cpu_paths::kMaxFreq), 64)) {
    const auto khz = wholeNumber(trimmed(*khzText));
    if (khz && *khz > 0)
      hz = std::min(*khz, kSpeedCap) * 1000;  // kept small enough not to wrap
  }
  if (!hz) {
    if (const auto text = readSmallFile(procPath(cpu_paths::kCpuInfo), kSpeedWindow))
      hz = cpuSpeedOfCpuinfo(*text);
  }
  cpuSpeed_ = static_cast<std::uint32_t>(hz ? std::min(*hz, kSpeedCap) : 0);
}

void CpuInfoLinux::storeCPUType() {
  long type = 0;
  cpuType_ = GetCPUType(&type, procPath(cpu_paths::kCpuInfo)) == 1 ? static_cast<std::int32_t>(type)
                                                                    : -1;
}

void CpuInfoLinux::storeMachineType() {
  machineType_ = getMachineID(sysPath(cpu_paths::kDmiProductName),
                              procPath(cpu_paths::kDeviceTreeModel));
}

void CpuInfoLinux::storeBrandString() { brandStr_.clear(); }

void CpuInfoLinux::oldCPUMethod() { storeCPUType(); }
