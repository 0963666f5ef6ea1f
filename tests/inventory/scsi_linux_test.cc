// SCSI devices of /proc and /sys fixtures, their records, and varloctl reading them.
#include "inventory/scsi_handler.h"
#include "inventory/scsi_linux.h"

#include <sys/socket.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "test_support.h"
#include "varloctl/scsi_command.h"

namespace {

const std::string kFixtures = std::string(VARLO_FIXTURES) + "/scsi";

// "id type |vendor|product|revision|" for each device, in order.
std::vector<std::string> collect(const std::string& proc, const std::string& sys) {
  CScsiLinux scsi(HostRoots{proc, sys});
  EXPECT_EQ(scsi.enumSCSIDevices(), 0);
  std::vector<std::string> out;
  unsigned char id, type;
  std::string v, p, r;
  while (scsi.getNextDevice(id, type, v, p, r) == 0)
    out.push_back(std::to_string(id) + " " + std::to_string(type) + " |" + v + "|" + p + "|" + r +
                  "|");
  return out;
}

struct ListedScsi : CScsiBase {
  std::vector<scsi_dev> list;
  int enumSCSIDevices() override {
    for (const auto& d : list) addSCSIDevice(&d);
    return 0;
  }
};

}  // namespace

TEST(ScsiLinux, ProcListingElseSysfsDevicesInKernelOrder) {
  // The kernel's blank padding stays in each text.
  EXPECT_EQ(collect(kFixtures + "/proc", kFixtures + "/sys"),
            (std::vector<std::string>{"0 0 |QEMU    |QEMU HARDDISK   |2.5+|",
                                      "2 5 |QEMU    |QEMU CD-ROM     |2.5+|"}));
  // Host and target entries of the bus are not devices; 10:0:0:0 after 0:0:0:0.
  EXPECT_EQ(collect(kFixtures + "/none", kFixtures + "/sys"),
            (std::vector<std::string>{"0 0 |ATA     |Samsung SSD 860 |1B6Q|",
                                      "0 5 |HL-DT-ST|DVDRAM GP57EB40 |PF00|"}));
  EXPECT_TRUE(collect(kFixtures + "/none", kFixtures + "/none").empty());
}

TEST(ScsiLinux, MalformedListingGivesWhatCanBeRead) {
  test_support::TempDir root;
  std::filesystem::create_directories(root / "proc/scsi");
  test_support::spit(root / "proc/scsi/scsi",
                     "Attached devices:\n"
                     "Host: scsi3 Channel: 00 Id: 300 Lun: 00\n"
                     "Host: scsi4 Channel: 00 Id: xx Lun: 00\n"
                     "  Vendor: AB\n"
                     "  Type:   ASC IT8                          ANSI  SCSI revision: 02 CCS\n"
                     "Host: scsi5 Channel: 00 Id: 01 Lun: 00\n"
                     "  Vendor: WDC Model: short Rev: 1\n");
  EXPECT_EQ(collect(root / "proc", root / "sys"),
            (std::vector<std::string>{"44 10 ||||", "0 10 |AB|||", "1 10 |WDC|short|1|"}));
}

TEST(ScsiRecords, SevenSlotsARecordTextsCutOrZeroFilledAndVarloctlReadsThemBack) {
  ListedScsi eight;
  eight.list.assign(8, {6, 5, "HL-DT-ST", "DVD", "LG00"});
  eight.list[0] = {9, 0, "ATA     ", "A PRODUCT NAME LONGER THAN 16", "1B6Q7"};
  eight.list[7] = {7, 20, "HL-DT-ST", "DVD", "LG00"};
  test_support::BlockRecorder rec;
  ASSERT_EQ(sendScsiRecords(eight, rec.sink()), 0);
  ASSERT_EQ(rec.blocks.size(), 2u);
  const std::string first(rec.blocks[0].begin(), rec.blocks[0].end());
  const std::string second(rec.blocks[1].begin(), rec.blocks[1].end());
  EXPECT_EQ(first.substr(0, 44), std::string("\0\x05\x01\0\0\0\0\0\0\0\0\0\0\x07" "\x09\0"
                                             "ATA     A PRODUCT NAME L1B6Q", 44));
  // Slot 0 again, nothing of the first device's longer texts left in it.
  EXPECT_EQ(second.substr(0, 44), std::string("\0\x05\x01\x01\0\0\0\0\0\0\0\0\0\x01" "\x07\x14"
                                              "HL-DT-STDVD\0\0\0\0\0\0\0\0\0\0\0\0\0LG00", 44));

  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  UniqueFd agent(fds[0]);
  for (const auto& b : rec.blocks) ASSERT_EQ(send(agent.get(), b.data(), b.size(), 0), 224);
  varloctl::Session session(UniqueFd(fds[1]), "test", 2000);
  const varloctl::Value list = varloctl::ScsiCommand().run(session);
  ASSERT_EQ(list.size(), 8u);
  EXPECT_EQ(list[0].at("vendor"), "ATA");  // without the padding
  EXPECT_EQ(list[0].at("type_name"), "Direct-Access");
  EXPECT_EQ(list[7].at("type_name"), "Unknown");  // a code past the table
}
