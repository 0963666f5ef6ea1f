// Disks and volumes of a fixture machine, a fake answering for its mounts.
#include "inventory/hd_info.h"
#include "inventory/disks_handler.h"
#include "inventory/volumes_handler.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "test_support.h"
#include "varlo/coding.h"
#include "varloctl/table_writer.h"
#include "varloctl/volumes_command.h"

using Bytes = std::vector<std::uint8_t>;
using test_support::BlockRecorder;
using test_support::listHeader;

namespace {

const std::string kFixtures = VARLO_FIXTURES;
const HostRoots kRoots{kFixtures + "/proc", kFixtures + "/sys_block"};

// 50-byte entries as the console reads them: a name of 32 characters or more
// writes its last one over the remote bit.
struct Entry { std::string name; bool remote; std::uint32_t total, free; };
Bytes batch(const std::vector<Entry>& entries) {
  Bytes out;
  for (const Entry& v : entries) {
    Bytes e(50, 0);
    e[32] = v.remote ? 0x80 : 0;
    e[0] = static_cast<std::uint8_t>(std::min<std::size_t>(v.name.size(), 32));
    std::copy_n(v.name.begin(), e[0], e.begin() + 1);
    varlo::putU32(e.data() + 34, v.total);
    varlo::putU32(e.data() + 38, v.free);
    out.insert(out.end(), e.begin(), e.end());
  }
  return out;
}

// What mount points answer. Each answer also carries an f_bsize and an f_bfree
// unlike the fields to use, so that using them shows.
struct Mount {
  unsigned long blocks = 0, frsize = 4096, bavail = 0;
  int error = 0;  // MountProbe::kUnreachable: the server is gone
  bool directory = true;
};
MountProbe fakeProbe(const std::map<std::string, Mount>& mounts) {
  MountProbe p;
  p.isDirectory = [mounts](const std::string& path) -> std::optional<bool> {
    const auto it = mounts.find(path);
    if (it != mounts.end() && it->second.error == MountProbe::kUnreachable) return std::nullopt;
    return it != mounts.end() && it->second.directory;
  };
  p.statvfs = [mounts](const std::string& path, struct statvfs& out) {
    const auto it = mounts.find(path);
    if (it == mounts.end()) return ENOENT;
    const Mount& m = it->second;
    out = {};
    out.f_bsize = m.frsize * 16;
    out.f_frsize = m.frsize;
    out.f_blocks = m.blocks;
    out.f_bfree = m.bavail + 1000;
    out.f_bavail = m.bavail;
    return m.error;
  };
  return p;
}

// The fixture machine's mounts; pseudo file systems answer too, as on a machine.
std::map<std::string, Mount> fixtureMounts() {
  std::map<std::string, Mount> m = {
      {"/", {262144, 4096, 131072}},  // exactly 1 GiB, half of it free to users
      {"/snap/core22/1621", {1002, 131072, 0}}, {"/boot/efi", {1046016, 512, 1031040}},
      {"/srv/data set", {244071424, 4096, 200000000}}, {"/mnt/nfs", {1907348, 1048576, 953674}},
      {"/mnt/cifs", {0, 4096, 0, EHOSTDOWN}}, {"/home/alice/build", {121815040, 4096, 60907520}},
      {"/media/alice/USB STICK", {7500000, 4096, 7000000}}, {"/tank", {2000, 131072, 1000}},
      {"/etc/hosts", {1000, 4096, 1000, 0, false}},  // a file bound over a file
      {"/mnt/projects/engineering/archive", {953674, 1048576, 1}},
  };
  for (const char* p : {"/sys", "/proc", "/dev", "/run", "/run/user/1000", "/sys/fs/cgroup",
                        "/run/user/1000/gvfs", "/var/lib/docker/overlay2/3f1c/merged"})
    m[p] = {1000, 4096, 1000};
  return m;
}

}  // namespace

TEST(SendVolumeList, VolumesOfTheFixtureMachine) {
  // Exactly one gibibyte is 10239 units: the quotient is cut, not rounded.
  const Entry root{"/", false, 10239, 5119}, efi{"/boot/efi", false, 5107, 5034},
      data{"/srv/data set", false, 9534003, 7812470}, nfs{"/mnt/nfs", true, 19073407, 9536703},
      build{"/home/alice/build", true, 4758381, 2379190},
      usb{"/media/alice/USB STICK", false, 292967, 273436},
      archive{"/mnt/projects/engineering/archive", true, 9536703, 9},
      tank{"/tank", false, 2499, 1249};
  const std::string opened = "Log Opened Successfully";  // the log's own first line
  const std::string cifs = "Could not get the size of volume /mnt/cifs.  Error: 112";
  const struct {
    std::uint16_t command;
    std::vector<std::string> gone;  // mounts whose server does not answer
    std::vector<Entry> want;
    std::vector<std::string> logged;
  } cases[] = {
      // Left out: the pseudo file systems (gvfs is a "fuse" mount, the
      // container root an overlay), the snap image, the file bound over
      // /etc/hosts, and the cifs mount that answers with an error (logged).
      // zfs needs no block device but is a volume.
      {4, {}, {root, efi, data, nfs, build, usb, archive, tank}, {opened, cifs}},
      {4, {build.name}, {root, efi, data, nfs, {build.name, true, 0, 0}, usb, archive, tank},
       {opened, cifs, "Volume /home/alice/build did not answer; its size is sent as 0"}},
      // Local volumes only: a remote mount is not even asked.
      {25, {nfs.name, build.name, archive.name, "/mnt/cifs"}, {root, efi, data, usb, tank},
       {opened}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    test_support::LogCapture log;
    auto mounts = fixtureMounts();
    for (const std::string& g : c.gone) mounts[g].error = MountProbe::kUnreachable;
    CHDInfo info(kRoots, fakeProbe(mounts));
    BlockRecorder rec;
    ASSERT_EQ(sendVolumeList(info, c.command, rec.sink()), 0);
    EXPECT_EQ(rec.blocks, (std::vector<Bytes>{
                              listHeader(c.command, 1, static_cast<int>(c.want.size())),
                              batch(c.want)}));
    EXPECT_EQ(log.messages(), c.logged);
  }
}

TEST(SendVolumeList, BatchesOfTenKeepWhatEarlierSlotsLeftAndStopAtARefusal) {
  // Eleven mounts: a 32-character local name first, a short remote one last,
  // so both land in slot 0 of their batches.
  const std::string longName = "/srv/exports/a-very-long-name-xy";
  std::string table;
  std::map<std::string, Mount> mounts;
  for (int i = 0; i < 11; ++i) {
    const std::string point = i == 0 ? longName : i == 10 ? "/mnt/n" : "/v" + std::to_string(i);
    table += "1 1 0:1 / " + point + " rw shared:1 - " + (i == 10 ? "nfs s:/x" : "ext4 d") + " rw\n";
    mounts[point] = {1000, 104858, 0};
  }
  test_support::TempDir dir;
  std::filesystem::create_directories(dir / "self");
  test_support::spit(dir / "self/mountinfo", table);
  const HostRoots roots{dir.path, kRoots.sys};

  CHDInfo info(roots, fakeProbe(mounts));
  BlockRecorder rec;
  ASSERT_EQ(sendVolumeList(info, 4, rec.sink()), 0);
  ASSERT_EQ(rec.blocks.size(), 4u);
  EXPECT_EQ(rec.blocks[0], listHeader(4, 0, 10));
  EXPECT_EQ(rec.blocks[2], listHeader(4, 1, 1));
  Bytes want = batch({{longName, false, 1000, 0}});
  want[0] = 6;
  std::copy_n("/mnt/n", 6, want.begin() + 1);
  want[32] = 'y' | 0x80;  // the earlier name's last character, remote bit set
  EXPECT_EQ(rec.blocks[3], want);

  for (std::size_t refuse : {0u, 1u, 2u, 3u}) {
    CHDInfo again(roots, fakeProbe(mounts));
    BlockRecorder r;
    r.refuseAt = refuse;
    EXPECT_EQ(sendVolumeList(again, 4, r.sink()), -1);
    EXPECT_EQ(r.calls, refuse + 1) << "nothing after the refused block";
  }
}

TEST(SendVolumeList, RootIsAlwaysAVolumeAndMalformedMountLinesAreSkipped) {
  test_support::TempDir dir;
  std::filesystem::create_directories(dir / "self");
  std::filesystem::copy_file(kFixtures + "/proc/filesystems", dir / "filesystems");
  test_support::spit(dir / "self/mountinfo",
                     "garbage\n"
                     "31 1 8:1 / /short rw\n"
                     "32 1 8:1 / /nosep rw,relatime shared:1 ext4 /dev/sda1 rw\n"
                     "33 1 8:1 / /lastsep rw,relatime shared:1 -\n"
                     "34 1 0:40 / / rw - overlay overlay rw\n"  // a container's root
                     "35 34 0:41 / /run/lock rw,nosuid - tmpfs tmpfs rw\n");
  const std::map<std::string, Mount> mounts = {{"/", {1280, 4096, 640}}, {"/run/lock", {1, 1, 1}}};
  CHDInfo info(HostRoots{dir.path, kRoots.sys}, fakeProbe(mounts));
  BlockRecorder rec;
  ASSERT_EQ(sendVolumeList(info, 25, rec.sink()), 0);
  EXPECT_EQ(rec.blocks,
            (std::vector<Bytes>{listHeader(25, 1, 1), batch({{"/", false, 49, 24}})}));
}

TEST(SendDiskList, FixedDisksBehindADeviceWithASize) {
  // sdb is removable, loop0 has no device link, vdb's size is 0.
  CHDInfo info(kRoots, fakeProbe({}));
  BlockRecorder rec;
  ASSERT_EQ(sendDiskList(info, rec.sink()), 0);
  EXPECT_EQ(rec.blocks, (std::vector<Bytes>{listHeader(26, 1, 2),
                                            batch({{"nvme0n1", false, 4883844, 0},
                                                   {"sda", false, 2441974, 0}})}));
}

TEST(VolumesCommand, TableInMebibytesWithoutARemoteMarkFor32CharacterNames) {
  varloctl::Value volumes = varloctl::Value::array();
  for (const varlo::varlo_volume& v :
       {varlo::varlo_volume{"/", false, 10239, 5119}, {"/mnt/nfs", true, 19073407, 9536703},
        {"/mnt/projects/engineering/archiv", true, 9536703, 9}})
    volumes.push_back(varloctl::VolumesCommand::describe(v));
  // The 32-character name's last character sits on the flag byte: no mark.
  EXPECT_EQ(varloctl::TableWriter::write(volumes),
            "NAME                              REMOTE  TOTAL MIB  FREE MIB\n"
            "/                                 no      1023.9     511.9\n"
            "/mnt/nfs                          yes     1907340.7  953670.3\n"
            "/mnt/projects/engineering/archiv  -       953670.3   0.9\n");
}
