// The hardware and system inventory commands against the real agent: record
// sizes, batch framing, and the values the machine itself reports.
#include <dirent.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstring>
#include <map>

#include <gmock/gmock.h>

#include "console_end.h"
#include "sandbox/agent_test.h"
#include "varlo/config_record.h"
#include "varlo/device_records.h"
#include "varlo/process_records.h"
#include "varlo/volume_records.h"

namespace sandbox {
namespace {

using namespace std::chrono_literals;
using namespace varlo;
using test_support::Bytes;
using test_support::ConsoleEnd;

template <typename Entry>
struct ListReply {
  std::vector<varlo_list_header> headers;
  std::vector<Entry> entries;
  bool whole = true;
};

// Reads batches until the closing header, as the console does.
template <typename Entry>
ListReply<Entry> readList(const Sandbox& box, std::uint16_t code) {
  Sandbox::NetworkScope net(box);
  ListReply<Entry> reply;
  ConsoleEnd console = ConsoleEnd::connectTo();
  if (!console.sendHeader(code, "")) return {{}, {}, false};
  for (int batches = 0; batches < 1000; ++batches) {
    bool ok = false;
    const auto header = console.receiveRecord<varlo_list_header>(&ok);
    if (!ok) return {{}, {}, false};
    reply.headers.push_back(header);
    const Bytes body = console.receive(header.count * Entry::kSize);
    if (body.size() != header.count * Entry::kSize) return {{}, {}, false};
    for (std::size_t i = 0; i < header.count; ++i)
      reply.entries.push_back(Entry::decodeAt(body.data() + i * Entry::kSize));
    if (header.prefix.last) {
      reply.whole = console.closedByPeer();
      return reply;
    }
  }
  return {{}, {}, false};
}

std::vector<std::string> numericEntries(const std::string& dir) {
  std::vector<std::string> out;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return out;
  while (const dirent* e = readdir(d))
    if (std::isdigit(static_cast<unsigned char>(e->d_name[0]))) out.push_back(e->d_name);
  closedir(d);
  return out;
}

TEST_F(AgentTest, TwentyProcessesComeAsTwoFullBatchesAndAnEmptyClosingOne) {
  Process agent = startAgent();
  const std::string agentPid = *readFile(box().hostPath(kPidFile));
  // The sandbox's own process table: its init, the agent, and what we start.
  std::vector<Process> sleepers;
  while (numericEntries(box().hostPath("/proc")).size() < 20)
    sleepers.push_back(box().spawn({"/bin/sleep", "60"}));
  ASSERT_EQ(numericEntries(box().hostPath("/proc")).size(), 20u);
  // Each sleeper is named so once its exec is done.
  ASSERT_TRUE(waitUntil(
      [&] {
        std::size_t named = 0;
        for (const auto& pid : numericEntries(box().hostPath("/proc")))
          named += readFile(box().hostPath("/proc/" + pid + "/comm")) == "sleep\n";
        return named == sleepers.size();
      },
      5s));

  const auto reply = readList<varlo_proc>(box(), 3);
  ASSERT_TRUE(reply.whole);
  ASSERT_EQ(reply.headers.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(reply.headers[i].prefix.command, 3);
    EXPECT_TRUE(reply.headers[i].prefix.success);
    EXPECT_EQ(reply.headers[i].count, i < 2 ? 10 : 0);
    EXPECT_EQ(reply.headers[i].prefix.last, i == 2);
  }
  ASSERT_EQ(reply.entries.size(), 20u);
  const auto self = std::find_if(reply.entries.begin(), reply.entries.end(),
                                 [&](const varlo_proc& p) { return std::to_string(p.id) == agentPid; });
  ASSERT_NE(self, reply.entries.end()) << "the agent's own pid " << agentPid;
  EXPECT_EQ(self->name, "varlo");
  EXPECT_GT(self->size, 0u);
  EXPECT_EQ(std::count_if(reply.entries.begin(), reply.entries.end(),
                          [](const varlo_proc& p) { return p.name == "sleep"; }),
            static_cast<long>(sleepers.size()));
  for (const auto& p : reply.entries) EXPECT_EQ(p.type, varlo_proc::kTypeAppl);
}

TEST_F(AgentTest, VolumesReportTheirFileSystemsSizesAndDisksTheFixedOnes) {
  Process agent = startAgent();
  // /usr inside is the host's file system bound read-only: its size is known.
  struct statvfs usr{};
  ASSERT_EQ(statvfs("/usr", &usr), 0);
  const std::uint64_t total = static_cast<std::uint64_t>(usr.f_blocks) * usr.f_frsize;
  const std::uint64_t avail = static_cast<std::uint64_t>(usr.f_bavail) * usr.f_frsize;

  for (std::uint16_t code : {4, 25}) {
    const auto reply = readList<varlo_volume>(box(), code);
    ASSERT_TRUE(reply.whole) << code;
    EXPECT_EQ(reply.headers.back().prefix.command, code);
    EXPECT_TRUE(reply.headers.back().prefix.last);
    std::vector<std::string> names;
    for (const auto& v : reply.entries) names.push_back(v.name);
    // Pseudo and memory file systems are not volumes.
    EXPECT_THAT(names, ::testing::Contains("/usr"));
    EXPECT_THAT(names, ::testing::Not(::testing::Contains("/tmp")));
    EXPECT_THAT(names, ::testing::Not(::testing::Contains("/proc")));
    const auto entry = std::find_if(reply.entries.begin(), reply.entries.end(),
                                    [](const varlo_volume& v) { return v.name == "/usr"; });
    ASSERT_NE(entry, reply.entries.end());
    EXPECT_FALSE(entry->remote);
    EXPECT_EQ(entry->total, varlo_volume::units(total));
    // Free space moves with whatever else the machine writes meanwhile.
    EXPECT_NEAR(static_cast<double>(entry->free), static_cast<double>(varlo_volume::units(avail)),
                varlo_volume::units(total) / 100.0 + 1);
  }

  // Disks: the block devices with a device behind them that cannot be ejected.
  std::vector<std::string> expected;
  DIR* d = opendir(box().hostPath("/sys/block").c_str());
  ASSERT_NE(d, nullptr);
  while (const dirent* e = readdir(d)) {
    const std::string dir = box().hostPath("/sys/block/") + e->d_name;
    if (e->d_name[0] == '.' || access((dir + "/device").c_str(), F_OK) != 0) continue;
    if (readFile(dir + "/removable").value_or("1").substr(0, 1) == "0") expected.push_back(e->d_name);
  }
  closedir(d);
  const auto disks = readList<varlo_volume>(box(), 26);
  ASSERT_TRUE(disks.whole);
  std::vector<std::string> got;
  for (const auto& v : disks.entries) got.push_back(v.name);
  EXPECT_THAT(got, ::testing::UnorderedElementsAreArray(expected));
}

TEST_F(AgentTest, ConfigurationRecordDescribesThisMachine) {
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());
  ConsoleEnd console = ConsoleEnd::connectTo();
  ASSERT_TRUE(console.sendHeader(1, ""));
  bool whole = false;
  const auto config = console.receiveRecord<varlo_config>(&whole);
  ASSERT_TRUE(whole);
  EXPECT_TRUE(console.closedByPeer());  // exactly 1272 bytes, nothing after
  EXPECT_EQ(config.prefix.command, 1);
  EXPECT_TRUE(config.prefix.success && config.prefix.last);
  EXPECT_EQ(config.recordTag, 1376u);
  EXPECT_EQ(config.cpuCount, static_cast<std::uint32_t>(sysconf(_SC_NPROCESSORS_ONLN)));
  struct sysinfo si{};
  ASSERT_EQ(sysinfo(&si), 0);
  const std::uint64_t ram = static_cast<std::uint64_t>(si.totalram) * si.mem_unit;
  EXPECT_EQ(config.physicalRamMb, static_cast<std::uint32_t>(ram >> 20));
  EXPECT_EQ(config.logicalRamMb, config.physicalRamMb);
  EXPECT_EQ(config.manufacturer, "Apple");
  EXPECT_EQ(config.fixed48, -2);
  EXPECT_EQ(config.fixed72, 1u);
  EXPECT_NE(config.osVersionText.find('.'), std::string::npos);
}

TEST_F(AgentTest, ScsiAndPciDevicesAreTheOnesTheKernelKnows) {
  Process agent = startAgent();
  {
    Sandbox::NetworkScope net(box());
    ConsoleEnd console = ConsoleEnd::connectTo();
    ASSERT_TRUE(console.sendHeader(5, ""));
    // No SCSI host lists devices here unless the kernel has them.
    std::size_t scsiDevices = 0;
    if (DIR* d = opendir(box().hostPath("/sys/bus/scsi/devices").c_str())) {
      while (const dirent* e = readdir(d))
        scsiDevices += std::count(e->d_name, e->d_name + std::strlen(e->d_name), ':') == 3;
      closedir(d);
    }
    std::size_t seen = 0;
    for (;;) {
      const Bytes record = console.receive(varlo_scsis::kSize);
      ASSERT_EQ(record.size(), varlo_scsis::kSize);
      EXPECT_EQ(record[0] << 8 | record[1], 5);
      seen += static_cast<std::size_t>(record[12] << 8 | record[13]);
      if (record[3] == 1) break;
    }
    EXPECT_TRUE(console.closedByPeer());
    EXPECT_EQ(seen, scsiDevices);
  }

  const auto pci = readList<varlo_pci>(box(), 27);
  ASSERT_TRUE(pci.whole);
  std::map<std::string, std::uint16_t> kernel;  // address -> vendor id
  DIR* d = opendir(box().hostPath("/sys/bus/pci/devices").c_str());
  ASSERT_NE(d, nullptr);
  while (const dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    const auto vendor = readFile(box().hostPath("/sys/bus/pci/devices/") + e->d_name + "/vendor");
    kernel[e->d_name] = static_cast<std::uint16_t>(std::stoul(vendor.value_or("0"), nullptr, 16));
  }
  closedir(d);
  ASSERT_EQ(pci.entries.size(), kernel.size());
  for (const auto& device : pci.entries) {
    EXPECT_FALSE(device.name.empty());
    EXPECT_FALSE(device.type.empty());
    // Without a physical slot name the slot is the function's address.
    const auto it = kernel.find(device.slot);
    if (it != kernel.end()) {
      EXPECT_EQ(device.vendor, it->second) << device.slot;
    }
  }
}

TEST_F(AgentTest, ConsoleToolShowsTheInventory) {
  Process agent = startAgent();
  for (const char* command : {"config", "processes", "volumes", "disks", "scsi", "pci"}) {
    const auto r = ctl({"--json", "127.0.0.1", command});
    EXPECT_EQ(r.exitCode, 0) << command << ": " << r.output;
  }
  const auto local = ctl({"127.0.0.1", "volumes", "local"});
  EXPECT_EQ(local.exitCode, 0) << local.output;
  EXPECT_THAT(local.output, ::testing::HasSubstr("/usr"));
  const auto processes = ctl({"127.0.0.1", "processes"});
  EXPECT_THAT(processes.output, ::testing::HasSubstr("varlo"));
}

}  // namespace
}  // namespace sandbox
