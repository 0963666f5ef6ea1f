#include "inventory/config_info.h"

#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <cerrno>
#include <utility>

#include "inventory/cpu_info_linux.h"
#include "core/vllog.h"

namespace {

// Values the console has always received for facts Linux has no source for,
// and for the fields that never vary.
constexpr std::int32_t kNoFpuType = -2;
constexpr std::int32_t kNoKeyboardType = -1;
constexpr std::uint32_t kNoBusSpeed = 0xFFFFFFFF;
constexpr std::uint32_t kNoSystemVersion = 0xFFFFFFFF;
constexpr std::int32_t kFixed32 = 0;
constexpr std::int32_t kFixed48 = -2;
constexpr std::int32_t kFixedMinusOne = -1;
constexpr std::uint32_t kFixed72 = 1;
constexpr const char* kManufacturer = "Apple";

}  // namespace

std::optional<std::string> SystemConfigSource::kernelRelease() {
  utsname un{};
  if (::uname(&un) != 0) return std::nullopt;
  return std::string(un.release);
}

int SystemConfigSource::totalMemory(std::uint64_t& bytes) {
  struct sysinfo si {};
  if (::sysinfo(&si) != 0) return errno;
  const std::uint64_t unit = si.mem_unit == 0 ? 1 : si.mem_unit;
  bytes = static_cast<std::uint64_t>(si.totalram) * unit;
  return 0;
}

CConfigInfo::CConfigInfo(HostRoots roots, std::shared_ptr<ConfigSource> source)
    : roots_(std::move(roots)),
      source_(source ? std::move(source) : std::make_shared<SystemConfigSource>()) {}

std::uint32_t CConfigInfo::systemVersionOf(const std::string& release) {
  unsigned parts[3] = {0, 0, 0};
  std::size_t pos = 0;
  for (unsigned& part : parts) {
    std::size_t digits = 0;
    unsigned value = 0;
    // Past four digits the number no longer matters: it is capped below.
    // Leading zeros are no such digits ("6.00001" is 6.1).
    while (pos < release.size() && release[pos] >= '0' && release[pos] <= '9') {
      if (value < 1000) value = value * 10 + static_cast<unsigned>(release[pos] - '0');
      ++digits;
      ++pos;
    }
    if (digits == 0) break;
    part = value;
    if (pos >= release.size() || release[pos] != '.') break;
    ++pos;
  }
  const unsigned major = parts[0] % 100;
  const unsigned minor = parts[1] > 9 ? 9 : parts[1];
  const unsigned patch = parts[2] > 9 ? 9 : parts[2];
  return ((major / 10) << 12) | ((major % 10) << 8) | (minor << 4) | patch;
}

void CConfigInfo::getConfigData(varlo::varlo_config& config) {
  CpuInfoLinux cpu(roots_);
  cpu.collectCPUInfo();
  const int numCPU = cpu.getNumCPU();
  const std::uint32_t speed = cpu.getCPUSpeed(0);
  const int type = cpu.getCPUType(0);
  const int machine = cpu.getMachineType();
  const std::string brand = cpu.getCPUBrandStr();

  config = varlo::varlo_config{};
  config.cpuCount = static_cast<std::uint32_t>(numCPU);
  config.cpuSpeedHz = speed;
  config.cpuType = type;
  config.recordTag = varlo::varlo_config::kRecordTag;
  config.cpuBrand = brand;  // sent behind a zero length byte
  config.machineType = machine;

  std::string text;
  if (const auto release = source_->kernelRelease()) {
    config.systemVersion = systemVersionOf(*release);
  } else {
    config.systemVersion = kNoSystemVersion;
    text = "Unknown";
  }
  // Read back from the field, so a failed query yields "Unknown165.15.15":
  // what the console has always been sent.
  const std::uint32_t v = config.systemVersion;
  const unsigned major = ((v >> 12) & 15) * 10 + ((v >> 8) & 15);
  if (major > 0)
    text += std::to_string(major) + "." + std::to_string((v >> 4) & 15) + "." +
            std::to_string(v & 15);
  else
    text += "Unknown";
  config.osVersionText = text;

  config.fixed64 = kFixedMinusOne;
  config.fixed52 = kFixedMinusOne;
  config.fixed56 = kFixedMinusOne;
  config.fixed48 = kFixed48;
  config.fpuType = kNoFpuType;
  config.fixed32 = kFixed32;
  config.keyboardType = kNoKeyboardType;
  config.fixed72 = kFixed72;
  config.busSpeedHz = kNoBusSpeed;

  meminfo mem;  // stays zero when the query fails
  getMemoryInfo(mem);
  config.physicalRamMb = static_cast<std::uint32_t>(mem.physical_bytes >> 20);
  config.logicalRamMb = static_cast<std::uint32_t>(mem.logical_bytes >> 20);

  config.manufacturer = kManufacturer;
}

int CConfigInfo::getMemoryInfo(meminfo& info) {
  std::uint64_t total = 0;
  if (const int err = source_->totalMemory(total); err != 0) {
    Log->LogMessage("Error getting memory information.  Error: " + std::to_string(err));
    return -1;
  }
  info.physical_bytes = total;
  // Linux has no separate logical figure: it is the same memory.
  info.logical_bytes = total;
  return 0;
}
