// PCI functions of a sysfs fixture, their batches, and varloctl reading them.
#include "inventory/pci_handler.h"
#include "inventory/pci_linux.h"

#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "test_support.h"
#include "varloctl/pci_command.h"

namespace {

const std::string kFixture = std::string(VARLO_FIXTURES) + "/pci_sysfs";

// "vendor slot name / type", sorted: libpci lists in directory order, which
// the test's file system decides.
std::vector<std::string> collect(const std::string& sys,
                                 const std::string& ids = kFixture + "/pci.ids") {
  CPciLinux pci(HostRoots{.sys = sys}, ids);
  EXPECT_EQ(pci.enumPCIDevices(), 0);
  std::vector<std::string> rows;
  std::uint16_t vendor;
  std::string name, slot, type;
  while (pci.getNextDevice(vendor, name, slot, type) == 0) {
    char id[8];
    std::snprintf(id, sizeof id, "%04x", vendor);
    rows.push_back(std::string(id) + " " + slot + " " + name + " / " + type);
  }
  std::sort(rows.begin(), rows.end());
  return rows;
}

struct ListedPci : CPciBase<pcilinux> {
  std::vector<pcilinux> list;
  int enumPCIDevices() override {
    for (const auto& d : list) addDevice(d);
    return 0;
  }
};

}  // namespace

TEST(PciLinux, EveryFunctionNamedFromTheIdDatabaseOrByNumber) {
  // The fixture's own database; bus/pci/slots/3 names the slot of 00:03.
  EXPECT_EQ(collect(kFixture),
            (std::vector<std::string>{
                "1af4 0000:00:02.0 Virtio 1.0 block device / Mass storage controller",
                "1af4 3 Virtio 1.0 network device / Ethernet controller",
                "8086 0000:00:00.0 Device 0d57 / Host bridge"}));  // vendor known, device not
  // A named database that does not exist: nothing else is asked.
  EXPECT_EQ(collect(kFixture, kFixture + "/none"),
            (std::vector<std::string>{"1af4 0000:00:02.0 Device 1042 / Class 0180",
                                      "1af4 3 Device 1041 / Class 0200",
                                      "8086 0000:00:00.0 Device 0d57 / Class 0600"}));
}

TEST(PciLinux, DamagedSysfsNeverEndsTheProcess) {
  // libpci's own answer to each of these is to exit.
  test_support::TempDir dir;
  std::filesystem::copy(kFixture, dir.path, std::filesystem::copy_options::recursive);
  const std::string devices = dir / "bus/pci/devices/";
  std::filesystem::remove(devices + "0000:00:02.0/vendor");
  std::filesystem::remove(devices + "0000:00:03.0/class");
  {
    test_support::LogCapture log;
    EXPECT_EQ(collect(dir.path), (std::vector<std::string>{
                                     "0000 0000:00:02.0  / Mass storage controller",
                                     "1af4 3 Virtio 1.0 network device / ",
                                     "8086 0000:00:00.0 Device 0d57 / Host bridge"}));
    EXPECT_TRUE(log.contains("Failed to get vendor code"));
    EXPECT_TRUE(log.contains("failed to get device type"));
  }
  std::filesystem::create_directories(devices + "bogus");
  for (const std::string& sys : {dir.path, dir / "none"}) {
    test_support::LogCapture log;
    EXPECT_TRUE(collect(sys).empty()) << sys;
    EXPECT_TRUE(log.contains("Could not get master port")) << sys;
  }
}

TEST(PciList, FourToABatchSlotsReusedAndVarloctlReadsThemBack) {
  ListedPci five;
  five.list.assign(5, {0x1af4, "Dev", "3", "Ethernet controller"});
  five.list[0] = {0x8086, std::string(40, 'N'), "0000:00:00.0", "Host bridge"};
  test_support::BlockRecorder rec;
  ASSERT_EQ(sendPciList(five, rec.sink()), 0);
  ASSERT_EQ(rec.blocks.size(), 4u);
  EXPECT_EQ(rec.blocks[0], test_support::listHeader(27, 0, 4));
  ASSERT_EQ(rec.blocks[1].size(), 4u * 122);
  EXPECT_EQ(rec.blocks[2], test_support::listHeader(27, 1, 1));
  std::string first(122, '\0');  // a 40-character name cut to 32; type, slot and vendor
  first.replace(0, 33, '\x20' + std::string(32, 'N'));
  first.replace(33, 12, "\x0b" "Host bridge");
  first.replace(66, 13, "\x0c" "0000:00:00.0");
  first.replace(100, 2, "\x80\x86");
  EXPECT_EQ(std::string(rec.blocks[1].begin(), rec.blocks[1].begin() + 122), first);
  // The batch buffer is cleared once: the fifth device's short name lies over
  // the first one's long name in slot 0.
  EXPECT_EQ(std::string(rec.blocks[3].begin(), rec.blocks[3].begin() + 6), "\x03" "DevNN");
  EXPECT_EQ(std::string(rec.blocks[3].begin() + 100, rec.blocks[3].begin() + 102), "\x1a\xf4");

  // The fixture's devices, sent and read back by the console.
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  UniqueFd agent(fds[0]);
  CPciLinux fixture(HostRoots{.sys = kFixture}, kFixture + "/pci.ids");
  ASSERT_EQ(sendPciList(fixture, [&](const std::uint8_t* p, std::size_t n) {
              return send(agent.get(), p, n, 0) == static_cast<ssize_t>(n) ? 0 : -1;
            }), 0);
  varloctl::Session session(UniqueFd(fds[1]), "test", 2000);
  const varloctl::Value list = varloctl::PciCommand().run(session);
  std::vector<std::string> rows;
  for (const auto& d : list)
    rows.push_back(d.at("vendor_id").get<std::string>() + " " + d.at("slot").get<std::string>() +
                   " " + d.at("name").get<std::string>() + " / " + d.at("type").get<std::string>());
  std::sort(rows.begin(), rows.end());
  EXPECT_EQ(rows, collect(kFixture));
}
