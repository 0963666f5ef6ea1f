// The Configuration record's collector: processor, machine, memory and
// system version, each with the fallback the console expects.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/host_roots.h"
#include "varlo/config_record.h"

// The platform queries behind the record's system facts, so tests can make
// them fail.
class ConfigSource {
 public:
  virtual ~ConfigSource() = default;
  // The kernel release, e.g. "6.1.0-18-amd64"; nullopt when unreadable.
  virtual std::optional<std::string> kernelRelease() = 0;
  // Total RAM in bytes: 0, or the errno of the failure.
  virtual int totalMemory(std::uint64_t& bytes) = 0;
};

// uname and sysinfo.
class SystemConfigSource : public ConfigSource {
 public:
  std::optional<std::string> kernelRelease() override;
  int totalMemory(std::uint64_t& bytes) override;
};

class CConfigInfo {
 public:
  struct meminfo {
    std::uint64_t physical_bytes = 0;
    std::uint64_t logical_bytes = 0;
  };

  // A null source means the system's.
  explicit CConfigInfo(HostRoots roots = {}, std::shared_ptr<ConfigSource> source = nullptr);

  // Fills the whole record but its prefix; every fact that cannot be read
  // takes its fallback, so this never fails.
  void getConfigData(varlo::varlo_config& config);

  // 0; or -1 after logging the failure, with info left as it was.
  int getMemoryInfo(meminfo& info);

  // The kernel release as four BCD nibbles: two digits of major, then minor
  // and patch capped at 9 ("6.1.0-18-amd64" -> 0x0610, "6.18.44" -> 0x0699).
  static std::uint32_t systemVersionOf(const std::string& release);

 private:
  HostRoots roots_;
  std::shared_ptr<ConfigSource> source_;
};
