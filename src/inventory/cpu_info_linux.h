// The processor and machine facts of a Linux host, read from procfs and
// sysfs under roots given at construction so tests can hand in a fixture.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "inventory/cpu_info.h"
#include "base/host_roots.h"

namespace cpu_paths {

// Under the proc root.
inline constexpr const char* kCpuInfo = "/cpuinfo";
inline constexpr const char* kDeviceTreeModel = "/device-tree/model";
// Under the sys root.
inline constexpr const char* kMaxFreq = "/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq";
inline constexpr const char* kDmiProductName = "/class/dmi/id/product_name";

}  // namespace cpu_paths

inline constexpr long kIntelCoreDuo = 600;
inline constexpr long kIntelCore = 601;

// Sets *type to 0, then from the first 4096 bytes of cpuinfo to 600 for an
// Intel Core Duo or 601 for any other Intel Core; 1 when a type was found,
// else 0. There is no second source on Linux.
int GetCPUType(long* type,
               const std::string& cpuinfoPath = std::string(host_paths::kProcRoot) +
                                                cpu_paths::kCpuInfo);

// GetCPUType's decision on the text it read: 600, 601 or 0.
long cpuTypeOfText(std::string_view head);

// The first "cpu MHz" value of cpuinfo text in hertz (4294967295 for a
// value of more megahertz than that); nullopt when there is none or it is
// no decimal number.
std::optional<std::uint64_t> cpuSpeedOfCpuinfo(std::string_view text);

// Sets name to the machine's model name (the DMI product name, else the
// device-tree model) or leaves it unchanged when neither has one.
void DoIOKitModel(std::string& name,
                  const std::string& productNamePath = std::string(host_paths::kSysRoot) +
                                                       cpu_paths::kDmiProductName,
                  const std::string& deviceTreeModelPath = std::string(host_paths::kProcRoot) +
                                                           cpu_paths::kDeviceTreeModel);

// The machine model code: -1 without a model name, else the code the name
// table gives it (351 for any name it does not list).
int getMachineID(const std::string& productNamePath = std::string(host_paths::kSysRoot) +
                                                      cpu_paths::kDmiProductName,
                 const std::string& deviceTreeModelPath = std::string(host_paths::kProcRoot) +
                                                          cpu_paths::kDeviceTreeModel);

// The name table of getMachineID on its own: the first rule that matches.
int machineIDForName(std::string_view name);

class CpuInfoLinux : public CpuInfo {
 public:
  explicit CpuInfoLinux(HostRoots roots = {});

  // Speed, type, machine, count, brand, in that order.
  void collectCPUInfo() override;
  int getNumCPU() const override { return numCPU_; }
  std::uint32_t getCPUSpeed(unsigned int) const override { return cpuSpeed_; }
  int getCPUType(unsigned int) const override { return cpuType_; }
  std::string getCPUBrandStr() const override { return brandStr_; }

  int getMachineType() const { return machineType_; }

  // sysconf's online count; 1 when it has none.
  void storeCPUCount();
  // cpu0's cpufreq maximum, else the first "cpu MHz" of cpuinfo; in hertz,
  // capped at 0xFFFFFFFF; 0 when neither is readable.
  void storeCPUSpeed();
  // GetCPUType's type, or -1.
  void storeCPUType();
  void storeMachineType();
  // Always empty: the record's brand field is never shown.
  void storeBrandString();
  // The type again, as storeCPUType finds it.
  void oldCPUMethod();

 private:
  std::string procPath(const char* rel) const { return roots_.procPath(rel); }
  std::string sysPath(const char* rel) const { return roots_.sysPath(rel); }

  std::uint32_t cpuSpeed_ = 0;
  std::int32_t cpuType_ = 0;
  std::int32_t machineType_ = 0;
  std::int32_t numCPU_ = 1;
  std::string brandStr_;
  HostRoots roots_;
};
