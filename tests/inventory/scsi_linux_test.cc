// The SCSI collector on /proc and /sys fixtures, the SCSI records it is sent
// in, and varloctl reading them back.
#include "inventory/scsi_linux.h"
#include "inventory/scsi_handler.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <filesystem>
#include <string>
#include <vector>

#include "test_support.h"
#include "base/unique_fd.h"
#include "varloctl/scsi_command.h"

using test_support::spit;
using test_support::TempDir;

namespace {

const std::string kFixtures = std::string(VARLO_FIXTURES) + "/scsi";

// "id type |vendor|product|revision|" for each device, in order.
std::vector<std::string> collect(CScsiLinux&& scsi) {
  EXPECT_EQ(scsi.enumSCSIDevices(), 0);
  std::vector<std::string> out;
  unsigned char id, type;
  std::string v, p, r;
  while (scsi.getNextDevice(id, type, v, p, r) == 0)
    out.push_back(std::to_string(id) + " " + std::to_string(type) + " |" + v + "|" + p + "|" + r + "|");
  return out;
}

class ListedScsi : public CScsiBase {
 public:
  explicit ListedScsi(std::vector<scsi_dev> devices) : list_(std::move(devices)) {}
  int enumSCSIDevices() override {
    for (const auto& d : list_) addSCSIDevice(&d);
    return 0;
  }

 private:
  std::vector<scsi_dev> list_;
};

std::vector<std::vector<std::uint8_t>> records(std::vector<CScsiBase::scsi_dev> devices) {
  ListedScsi scsi(std::move(devices));
  std::vector<std::vector<std::uint8_t>> out;
  EXPECT_EQ(sendScsiRecords(scsi, [&](const std::uint8_t* p, std::size_t n) {
              out.emplace_back(p, p + n);
              return 0;
            }),
            0);
  return out;
}

}  // namespace

TEST(ScsiTypeLookup, LowestMatchingCodeAnywhereInTheText) {
  const std::pair<std::string, int> cases[] = {
      {"  Type:   Direct-Access                    ANSI  SCSI revision: 05", 0},
      {"Sequential-Access", 1},
      {"Direct-Access-ZBC", 0},  // newer kernel names that contain an old one
      {"RAID", 12},
      {"Enclosure", 13},
      {"Unknown", 10},                 // never 11, which has the same name
      {"Enclosure behind CD-ROM", 5},  // the table's order decides, not the text's
      {"cd-rom", 0x42},                // case matters; no match leaves the code
      {"ASC IT8", 0x42},
      {"", 0x42},
  };
  for (const auto& [text, expected] : cases) {
    unsigned char type = 0x42;
    CScsiBase::typeLookup(text, type);
    EXPECT_EQ(type, expected) << text;
  }
}

TEST(ScsiLinux, ProcListingFirstThenSysfsDevicesInKernelOrder) {
  // The kernel's blank padding is part of each text.
  EXPECT_EQ(collect(CScsiLinux(HostRoots{kFixtures + "/proc", kFixtures + "/sys"})),
            (std::vector<std::string>{"0 0 |QEMU    |QEMU HARDDISK   |2.5+|",
                                      "2 5 |QEMU    |QEMU CD-ROM     |2.5+|"}));
  // Host and target entries of the bus are not devices; 10:0:0:0 after 0:0:0:0.
  EXPECT_EQ(collect(CScsiLinux(HostRoots{kFixtures + "/none", kFixtures + "/sys"})),
            (std::vector<std::string>{"0 0 |ATA     |Samsung SSD 860 |1B6Q|",
                                      "0 5 |HL-DT-ST|DVDRAM GP57EB40 |PF00|"}));
  EXPECT_TRUE(collect(CScsiLinux(HostRoots{kFixtures + "/none", kFixtures + "/none"})).empty());

  TempDir root;  // a listing with no device is the answer; sysfs is not asked
  std::filesystem::create_directories(root / "scsi");
  spit(root / "scsi/scsi", "Attached devices:\n");
  EXPECT_TRUE(collect(CScsiLinux(HostRoots{root.path, kFixtures + "/sys"})).empty());
}

TEST(ScsiLinux, MalformedSourcesGiveWhatCanBeRead) {
  TempDir root;
  std::filesystem::create_directories(root / "proc/scsi");
  spit(root / "proc/scsi/scsi",
       "Attached devices:\n"
       "  Vendor: ORPHAN   Model: before any host  Rev: 0001\n"
       "Host: scsi3 Channel: 00 Id: 300 Lun: 00\n"
       "Host: scsi4 Channel: 00 Id: xx Lun: 00\n"
       "  Vendor: AB\n"
       "  Type:   ASC IT8                          ANSI  SCSI revision: 02 CCS\n"
       "Host: scsi5 Channel: 00 Id: 01 Lun: 00\n"
       "  Vendor: WDC Model: short Rev: 1\n"
       "\x01\xff garbage\n");
  EXPECT_EQ(collect(CScsiLinux(HostRoots{root / "proc", root / "sys"})),
            (std::vector<std::string>{"44 10 ||||", "0 10 |AB|||", "1 10 |WDC|short|1|"}));

  const std::string dev = root / "sys/bus/scsi/devices/";
  for (const char* d : {"1:0:0:0", "1:0:0:1", "1:0:0:2", "1:0:0", "1:0:0:0:0"})
    std::filesystem::create_directories(dev + d);
  spit(dev + "1:0:0:0/type", "x\n");
  spit(dev + "1:0:0:1/type", "300\n");
  spit(dev + "1:0:0:2/type", "12\n");
  spit(dev + "1:0:0:2/vendor", "NOEOL");
  EXPECT_EQ(collect(CScsiLinux(HostRoots{root / "none", root / "sys"})),
            (std::vector<std::string>{"0 10 ||||", "0 10 ||||", "0 12 |NOEOL|||"}));
}

TEST(ScsiRecords, SevenSlotsARecordTextsCutOrZeroFilledAndAlwaysALastRecord) {
  std::vector<std::uint8_t> empty(224, 0);
  empty[1] = 5;  // command
  empty[2] = 1;  // header_one
  empty[3] = 1;  // last_batch
  EXPECT_EQ(records({}), std::vector<std::vector<std::uint8_t>>{empty});

  std::vector<CScsiBase::scsi_dev> devices(8, {6, 5, "HL-DT-ST", "DVD", "LG00"});
  devices[0] = {9, 0, "ATA", "A PRODUCT NAME LONGER THAN 16", "1B6Q7"};
  devices[7].id = 7;
  const auto r = records(devices);
  ASSERT_EQ(r.size(), 2u);
  ASSERT_EQ(r[0].size(), 224u);
  ASSERT_EQ(r[1].size(), 224u);
  EXPECT_EQ(std::vector<std::uint8_t>(r[0].begin(), r[0].begin() + 14),
            std::vector<std::uint8_t>({0, 5, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7}));
  EXPECT_EQ(std::string(r[0].begin() + 14, r[0].begin() + 44),
            std::string("\x09\x00" "ATA\0\0\0\0\0" "A PRODUCT NAME L" "1B6Q", 30));
  EXPECT_EQ(std::string(r[0].begin() + 194, r[0].begin() + 224),
            std::string("\x06\x05" "HL-DT-ST" "DVD\0\0\0\0\0\0\0\0\0\0\0\0\0" "LG00", 30));
  EXPECT_EQ(std::vector<std::uint8_t>(r[1].begin() + 3, r[1].begin() + 14),
            std::vector<std::uint8_t>({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
  // Slot 0 again, nothing of the first device's longer texts left in it.
  EXPECT_EQ(std::string(r[1].begin() + 14, r[1].begin() + 44),
            std::string("\x07\x05" "HL-DT-ST" "DVD\0\0\0\0\0\0\0\0\0\0\0\0\0" "LG00", 30));

  ListedScsi many(std::vector<CScsiBase::scsi_dev>(15));
  int calls = 0;
  EXPECT_EQ(sendScsiRecords(many, [&](const std::uint8_t*, std::size_t) { return ++calls, -1; }), -1);
  EXPECT_EQ(calls, 1);
}

TEST(ScsiRecords, VarloctlReadsTheRecordsBack) {
  std::vector<CScsiBase::scsi_dev> devices(8, {0, 0, "QEMU    ", "QEMU HARDDISK   ", "2.5+"});
  devices[7] = {8, 20, "ATA", "SSD", "1"};
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  UniqueFd agent(fds[0]);
  for (const auto& b : records(devices)) ASSERT_EQ(send(agent.get(), b.data(), b.size(), 0), 224);
  varloctl::Session session(UniqueFd(fds[1]), "test", 2000);
  const varloctl::Value list = varloctl::ScsiCommand().run(session);
  ASSERT_EQ(list.items().size(), 8u);
  const auto& first = list.items()[0];
  EXPECT_EQ(first.find("vendor")->asString(), "QEMU");
  EXPECT_EQ(first.find("product")->asString(), "QEMU HARDDISK");
  EXPECT_EQ(first.find("type_name")->asString(), "Direct-Access");
  const auto& last = list.items()[7];
  EXPECT_EQ(last.find("id")->asInteger(), 8);
  EXPECT_EQ(last.find("type")->asInteger(), 20);
  EXPECT_EQ(last.find("type_name")->asString(), "Unknown");
  EXPECT_EQ(last.find("revision")->asString(), "1");
}
