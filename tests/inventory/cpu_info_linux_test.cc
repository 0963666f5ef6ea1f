#include "inventory/cpu_info_linux.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "test_support.h"

namespace {

const std::string kTrees = VARLO_FIXTURES "/config/";

CpuInfoLinux collected(const std::string& proc, const std::string& sys) {
  CpuInfoLinux cpu(HostRoots{proc, sys});
  cpu.collectCPUInfo();
  return cpu;
}

// A scratch proc and sys root with the files a case needs.
struct Roots {
  test_support::TempDir dir;
  std::string proc = dir / "proc";
  std::string sys = dir / "sys";

  void write(const std::string& path, const std::string& text) const {
    const std::string full = dir / path;
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    test_support::spit(full, text);
  }
  void maxFreq(const std::string& text) const {
    write(std::string("sys") + cpu_paths::kMaxFreq, text);
  }
  void cpuMHz(const std::string& value) const {
    write("proc/cpuinfo", "processor\t: 0\nvendor_id\t: GenuineIntel\ncpu MHz\t\t: " + value +
                              "\ncache size\t: 8192 KB\n");
  }
};

TEST(CpuInfoLinux, FixtureMachines) {
  const struct {
    const char* tree;
    int type;
    std::uint32_t speed;
    int machine;
  } cases[] = {
      // This machine: a KVM guest without cpufreq, DMI or device tree.
      {"xeon", -1, 2299998000u, -1},
      // cpufreq's maximum wins over the current "cpu MHz" (1000).
      {"core-duo", 600, 2000000000u, 352},
      // 4.6 GHz does not fit the field.
      {"core-i7", 601, 0xFFFFFFFFu, 351},
      // No clock source a Linux PowerPC offers in this form; model from the device tree.
      {"powerbook", -1, 0, 354},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tree);
    const CpuInfoLinux cpu = collected(kTrees + c.tree + "/proc", kTrees + c.tree + "/sys");
    EXPECT_EQ(cpu.getCPUType(0), c.type);
    EXPECT_EQ(cpu.getCPUType(7), c.type);
    EXPECT_EQ(cpu.getCPUSpeed(0), c.speed);
    EXPECT_EQ(cpu.getCPUSpeed(3), c.speed);
    EXPECT_EQ(cpu.getMachineType(), c.machine);
    EXPECT_GE(cpu.getNumCPU(), 1);
    EXPECT_EQ(cpu.getCPUBrandStr(), "");
  }
}

TEST(CpuInfoLinux, TypeFromTheStartOfCpuinfo) {
  long type = -5;
  EXPECT_EQ(GetCPUType(&type, kTrees + "core-duo/proc/cpuinfo"), 1);
  EXPECT_EQ(type, 600);  // also names an "Intel Core": the longer name is tested first
  EXPECT_EQ(GetCPUType(&type, kTrees + "core-i7/proc/cpuinfo"), 1);
  EXPECT_EQ(type, 601);
  type = -5;
  EXPECT_EQ(GetCPUType(&type, kTrees + "xeon/proc/cpuinfo"), 0);
  EXPECT_EQ(type, 0);
  type = -5;
  EXPECT_EQ(GetCPUType(&type, kTrees + "missing/cpuinfo"), 0);
  EXPECT_EQ(type, 0);
  EXPECT_EQ(GetCPUType(nullptr, kTrees + "core-i7/proc/cpuinfo"), 0);

  Roots r;
  // A Core 2 Duo is no Core Duo.
  r.write("proc/cpuinfo", "model name\t: Intel(R) Core(TM)2 Duo CPU     T7700  @ 2.40GHz\n");
  EXPECT_EQ(GetCPUType(&type, r.proc + "/cpuinfo"), 1);
  EXPECT_EQ(type, 601);

  // Only the first 4096 bytes count: a name ending exactly there is seen,
  // one byte further is not.
  const std::string name = "model name\t: Intel(R) Core(TM) Duo";
  r.write("proc/cpuinfo", std::string(4096 - name.size(), '\n') + name);
  EXPECT_EQ(GetCPUType(&type, r.proc + "/cpuinfo"), 1);
  EXPECT_EQ(type, 600);
  r.write("proc/cpuinfo", std::string(4097 - name.size(), '\n') + name);
  EXPECT_EQ(GetCPUType(&type, r.proc + "/cpuinfo"), 1);
  EXPECT_EQ(type, 601);  // "...Core(TM) Du" is still a Core
  r.write("proc/cpuinfo", std::string(4096, '\n') + name);
  EXPECT_EQ(GetCPUType(&type, r.proc + "/cpuinfo"), 0);
}

TEST(CpuInfoLinux, SpeedFallsBackFromCpufreqToCpuMHz) {
  const auto speed = [](const Roots& r) { return collected(r.proc, r.sys).getCPUSpeed(0); };
  {
    Roots r;
    r.cpuMHz("2893.2");
    EXPECT_EQ(speed(r), 2893200000u);
    for (const char* bad : {"", "\n", "0\n", "abc\n", "-2000000\n", "1.5e6\n"}) {
      SCOPED_TRACE(bad);
      r.maxFreq(bad);
      EXPECT_EQ(speed(r), 2893200000u);
    }
    r.maxFreq("3400000\n");
    EXPECT_EQ(speed(r), 3400000000u);
    r.maxFreq("99999999999999999999999\n");  // overflows: not a number, so cpuinfo's
    EXPECT_EQ(speed(r), 2893200000u);
  }
  const struct {
    const char* mhz;
    std::uint32_t hz;
  } cases[] = {
      {"4294.967295", 0xFFFFFFFFu},
      {"4294.967296", 0xFFFFFFFFu},
      {"4294.966", 4294966000u},
      {"5200.000", 0xFFFFFFFFu},
      {"123456789012345678901234", 0xFFFFFFFFu},
      {"800.0214999", 800021499u},  // one hertz is as fine as the field goes
      {"1000", 1000000000u},
      {"", 0},
      {"abc", 0},
      {".5", 0},
      {"12.3.4", 0},
      {"-1000.0", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mhz);
    Roots r;
    r.cpuMHz(c.mhz);
    EXPECT_EQ(speed(r), c.hz);
  }
  Roots none;  // neither file
  EXPECT_EQ(speed(none), 0u);
}

TEST(CpuInfoLinux, MachineNameTableInOrder) {
  const struct {
    const char* name;
    int code;
  } cases[] = {
      {"PowerMac7,2", 356},
      {"PowerMac1,1", 351},
      {"PowerMac1,2", 351},
      {"PowerMac3,1", 351},
      {"PowerMac2,1", 352},
      {"PowerMac2,2", 352},
      {"PowerMac4,2", 355},
      {"PowerBook3,1", 353},
      {"PowerBook1,1", 353},  // before the general PowerBook
      {"PowerBook5,8", 354},
      {"AAPL,Gossamer", 510},
      {"AAPL,PowerBook1998", 354},  // the general PowerBook rule comes first
      {"iMac4,1", 352},
      {"RackMac1,1", 351},
      {"Standard PC (i440FX + PIIX, 1996)", 351},
  };
  for (const auto& c : cases) EXPECT_EQ(machineIDForName(c.name), c.code) << c.name;
}

TEST(CpuInfoLinux, ModelNameFromDmiElseDeviceTree) {
  Roots r;
  const std::string dmi = r.sys + cpu_paths::kDmiProductName;
  const std::string dt = r.proc + cpu_paths::kDeviceTreeModel;
  const auto model = [&] {
    std::string name = "kept";
    DoIOKitModel(name, dmi, dt);
    return name;
  };

  EXPECT_EQ(model(), "kept");
  EXPECT_EQ(getMachineID(dmi, dt), -1);

  r.write(std::string("proc") + cpu_paths::kDeviceTreeModel,
          std::string("PowerBook1,1\0stale", 19));
  EXPECT_EQ(model(), "PowerBook1,1");
  EXPECT_EQ(getMachineID(dmi, dt), 353);

  r.write(std::string("sys") + cpu_paths::kDmiProductName, " \n");  // blank: not a name
  EXPECT_EQ(model(), "PowerBook1,1");

  r.write(std::string("sys") + cpu_paths::kDmiProductName, "MacBookPro1,1\n");
  EXPECT_EQ(model(), "MacBookPro1,1");
  EXPECT_EQ(getMachineID(dmi, dt), 351);

  r.write(std::string("sys") + cpu_paths::kDmiProductName, std::string(200, 'x') + "\n");
  EXPECT_EQ(model(), std::string(127, 'x'));
}

}  // namespace

TEST(CpuInfoLinux, TypeAndSpeedFromText) {
  EXPECT_EQ(cpuTypeOfText("model name\t: Intel(R) Core(TM) Duo CPU T2450\n"), kIntelCoreDuo);
  EXPECT_EQ(cpuTypeOfText("model name\t: Intel(R) Core(TM) i7-4790K\n"), kIntelCore);
  EXPECT_EQ(cpuTypeOfText(std::string(4096, ' ') + "Intel Core"), 0);  // past the window
  EXPECT_EQ(cpuSpeedOfCpuinfo("processor\t: 0\ncpu MHz\t\t: 2299.998\n"), 2299998000u);
  EXPECT_EQ(cpuSpeedOfCpuinfo("cpu MHz : 99999999999\n"), 0xFFFFFFFFu);
  EXPECT_EQ(cpuSpeedOfCpuinfo("cpu MHz : fast\n"), std::nullopt);
  EXPECT_EQ(cpuSpeedOfCpuinfo("processor : 0\n"), std::nullopt);
}
