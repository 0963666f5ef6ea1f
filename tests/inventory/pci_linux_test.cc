// The PCI collector through libpci on a sysfs fixture, the batches it is
// sent in, and varloctl reading them back.
#include "inventory/pci_linux.h"
#include "inventory/pci_handler.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "test_support.h"
#include "base/unique_fd.h"
#include "varloctl/pci_command.h"

using test_support::LogCapture;
using test_support::TempDir;
namespace fs = std::filesystem;

namespace {

const std::string kFixture = std::string(VARLO_FIXTURES) + "/pci_sysfs";
const std::string kIds = kFixture + "/pci.ids";

// "vendor slot name / type", sorted: libpci lists in directory order, which
// the test's file system decides.
std::vector<std::string> collect(CPciLinux&& pci) {
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

class ListedPci : public CPciBase<pcilinux> {
 public:
  explicit ListedPci(std::vector<pcilinux> devices) : list_(std::move(devices)) {}
  int enumPCIDevices() override {
    for (const auto& d : list_) addDevice(d);
    return 0;
  }

 private:
  std::vector<pcilinux> list_;
};

using Blocks = std::vector<std::vector<std::uint8_t>>;

Blocks blocks(CPciBase<pcilinux>&& pci) {
  Blocks out;
  EXPECT_EQ(sendPciList(pci, [&](const std::uint8_t* p, std::size_t n) {
              out.emplace_back(p, p + n);
              return 0;
            }),
            0);
  return out;
}

std::vector<std::uint8_t> header(std::uint8_t last, std::uint8_t count) {
  return {0, 27, 1, last, 0, 0, 0, 0, 0, 0, 0, 0, 0, count};
}

}  // namespace

TEST(PciLinux, EveryFunctionNamedFromTheIdDatabaseOrByNumber) {
  // The fixture's own database; bus/pci/slots/3 names the slot of 00:03.
  EXPECT_EQ(collect(CPciLinux(HostRoots{.sys = kFixture}, kIds)),
            (std::vector<std::string>{
                "1af4 0000:00:02.0 Virtio 1.0 block device / Mass storage controller",
                "1af4 3 Virtio 1.0 network device / Ethernet controller",
                "8086 0000:00:00.0 Device 0d57 / Host bridge",  // vendor known, device not
            }));
  // A named database that does not exist: nothing else is asked.
  EXPECT_EQ(collect(CPciLinux(HostRoots{.sys = kFixture}, kFixture + "/none")),
            (std::vector<std::string>{"1af4 0000:00:02.0 Device 1042 / Class 0180",
                                      "1af4 3 Device 1041 / Class 0200",
                                      "8086 0000:00:00.0 Device 0d57 / Class 0600"}));
  EXPECT_EQ(CPciLinux::address(0x10000, 0xab, 0x1f, 7), "10000:ab:1f.7");
}

TEST(PciLinux, DamagedSysfsNeverEndsTheProcess) {
  // libpci's own answer to each of these is to exit.
  TempDir dir;
  fs::copy(kFixture, dir.path, fs::copy_options::recursive);
  const std::string devices = dir / "bus/pci/devices/";
  fs::remove(devices + "0000:00:02.0/vendor");
  fs::remove(devices + "0000:00:03.0/class");
  {
    LogCapture log;
    EXPECT_EQ(collect(CPciLinux(HostRoots{.sys = dir.path}, kIds)),
              (std::vector<std::string>{"0000 0000:00:02.0  / Mass storage controller",
                                        "1af4 3 Virtio 1.0 network device / ",
                                        "8086 0000:00:00.0 Device 0d57 / Host bridge"}));
    EXPECT_TRUE(log.contains("Failed to get vendor code"));
    EXPECT_TRUE(log.contains("failed to get device type"));
  }
  fs::create_directories(devices + "bogus");
  for (const std::string& sys : {dir.path, dir / "none"}) {
    LogCapture log;
    EXPECT_TRUE(collect(CPciLinux(HostRoots{.sys = sys}, kIds)).empty()) << sys;
    EXPECT_TRUE(log.contains("Could not get master port")) << sys;
  }
}

TEST(PciList, FourToABatchThenTheRest) {
  EXPECT_EQ(blocks(ListedPci({})), Blocks{header(1, 0)});

  std::vector<pcilinux> devices(5, {0x1af4, "Dev", "3", "Ethernet controller"});
  devices[0] = {0x8086, std::string(40, 'N'), "0000:00:00.0", "Host bridge"};
  const Blocks b = blocks(ListedPci(devices));
  ASSERT_EQ(b.size(), 4u);
  EXPECT_EQ(b[0], header(0, 4));
  ASSERT_EQ(b[1].size(), 4u * 122);
  EXPECT_EQ(b[2], header(1, 1));
  ASSERT_EQ(b[3].size(), 122u);

  std::vector<std::uint8_t> first(122, 0);
  first[0] = 32;  // a 40-character name is cut to 32
  std::fill_n(first.begin() + 1, 32, 'N');
  first[33] = 11;
  std::string("Host bridge").copy(reinterpret_cast<char*>(first.data()) + 34, 11);
  first[66] = 12;
  std::string("0000:00:00.0").copy(reinterpret_cast<char*>(first.data()) + 67, 12);
  first[100] = 0x80;
  first[101] = 0x86;
  EXPECT_EQ(std::vector<std::uint8_t>(b[1].begin(), b[1].begin() + 122), first);

  // The batch buffer is cleared once: the fifth device's short name lies over
  // the first one's long name in slot 0.
  EXPECT_EQ(std::string(b[3].begin(), b[3].begin() + 6), "\x03" "DevNN");
  EXPECT_EQ(b[3][100], 0x1a);
  EXPECT_EQ(b[3][101], 0xf4);

  ListedPci eight(std::vector<pcilinux>(8));
  int calls = 0;
  EXPECT_EQ(sendPciList(eight, [&](const std::uint8_t*, std::size_t) { return ++calls == 2; }), -1);
  EXPECT_EQ(calls, 2);
}

TEST(PciList, VarloctlReadsTheBatchesBack) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  UniqueFd agent(fds[0]);
  for (const auto& b : blocks(CPciLinux(HostRoots{.sys = kFixture}, kIds)))
    ASSERT_EQ(send(agent.get(), b.data(), b.size(), 0), static_cast<ssize_t>(b.size()));
  varloctl::Session session(UniqueFd(fds[1]), "test", 2000);
  const varloctl::Value list = varloctl::PciCommand().run(session);
  std::vector<std::string> rows;
  for (const auto& d : list.items())
    rows.push_back(d.find("vendor_id")->asString() + " " + d.find("slot")->asString() + " " +
                   d.find("name")->asString() + " / " + d.find("type")->asString());
  std::sort(rows.begin(), rows.end());
  EXPECT_EQ(rows, collect(CPciLinux(HostRoots{.sys = kFixture}, kIds)));
}
