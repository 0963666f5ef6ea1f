// Processor type and speed and the machine's model from fixture trees.
#include "inventory/cpu_info_linux.h"

#include <filesystem>
#include <string>

#include "test_support.h"

namespace {

const std::string kTrees = VARLO_FIXTURES "/config/";

void write(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  test_support::spit(path, text);
}

}  // namespace

TEST(CpuInfoLinux, FixtureMachines) {
  const struct {
    const char* tree;
    int type;
    std::uint32_t speed;
    int machine;
  } cases[] = {
      {"xeon", -1, 2299998000u, -1},  // a KVM guest without cpufreq, DMI or device tree
      // cpufreq's maximum wins over "cpu MHz" (1000); the longer name
      // "Intel Core Duo" is tested first.
      {"core-duo", 600, 2000000000u, 352},
      {"core-i7", 601, 0xFFFFFFFFu, 351},  // 4.6 GHz does not fit the field
      {"powerbook", -1, 0, 354},  // no clock in a form Linux offers; model from the device tree
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tree);
    CpuInfoLinux cpu(HostRoots{kTrees + c.tree + "/proc", kTrees + c.tree + "/sys"});
    cpu.collectCPUInfo();
    EXPECT_EQ(cpu.getCPUType(0), c.type);
    EXPECT_EQ(cpu.getCPUSpeed(0), c.speed);
    EXPECT_EQ(cpu.getMachineType(), c.machine);
  }
}

TEST(CpuInfoLinux, SpeedFromCpufreqElseCpuMHzInHertzCappedAt32Bits) {
  const struct {
    const char* maxFreq;  // kHz
    const char* mhz;
    std::uint32_t hz;
  } cases[] = {
      {"3400000\n", "2893.2", 3400000000u},
      // cpufreq values that are 0 or no number: "cpu MHz" is taken.
      {"0\n", "2893.2", 2893200000u}, {"1.5e6\n", "2893.2", 2893200000u},
      {"99999999999999999999999\n", "2893.2", 2893200000u},
      {nullptr, "4294.967295", 0xFFFFFFFFu}, {nullptr, "4294.967296", 0xFFFFFFFFu},
      {nullptr, "123456789012345678901234", 0xFFFFFFFFu},
      {nullptr, "18446744073710", 0xFFFFFFFFu},  // past 64 bits in hertz
      {nullptr, "800.0214999", 800021499u},  // one hertz is as fine as the field goes
      {nullptr, "12.3.4", 0}, {nullptr, "-1000.0", 0}, {nullptr, nullptr, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.maxFreq ? c.maxFreq : "-") + " / " + (c.mhz ? c.mhz : "-"));
    test_support::TempDir dir;
    if (c.maxFreq != nullptr) write(dir / "sys" + cpu_paths::kMaxFreq, c.maxFreq);
    if (c.mhz != nullptr)
      write(dir / "proc/cpuinfo", std::string("processor\t: 0\ncpu MHz\t\t: ") + c.mhz + "\n");
    CpuInfoLinux cpu(HostRoots{dir / "proc", dir / "sys"});
    cpu.collectCPUInfo();
    EXPECT_EQ(cpu.getCPUSpeed(0), c.hz);
  }
}

TEST(CpuInfoLinux, ModelFromABlankDmiNameFallsToTheDeviceTreeAndTheFirstRuleItMatches) {
  test_support::TempDir dir;
  write(dir / "model", "PowerBook1,1");
  write(dir / "product_name", " \n");
  EXPECT_EQ(getMachineID(dir / "product_name", dir / "model"), 353);  // not the general PowerBook
  EXPECT_EQ(machineIDForName("AAPL,PowerBook1998"), 354);  // the general PowerBook comes first
}
