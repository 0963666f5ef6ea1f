#include "inventory/hd_info.h"
#include "inventory/disks_handler.h"
#include "inventory/volumes_handler.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "test_support.h"
#include "varloctl/disks_command.h"
#include "varloctl/json_writer.h"
#include "varloctl/table_writer.h"
#include "varloctl/volumes_command.h"
#include "varloctl_fake_agent.h"

using Bytes = std::vector<std::uint8_t>;

namespace {

const std::string kFixtures = VARLO_FIXTURES;
const HostRoots kRoots{kFixtures + "/proc", kFixtures + "/sys_block"};

// A proc root of the test's own with this mount table and the fixture's
// file system list.
HostRoots withMounts(const test_support::TempDir& dir, const std::string& table) {
  std::filesystem::create_directories(dir / "proc/self");
  test_support::spit(dir / "proc/self/mountinfo", table);
  std::filesystem::copy_file(kFixtures + "/proc/filesystems", dir / "proc/filesystems",
                             std::filesystem::copy_options::overwrite_existing);
  return HostRoots{dir / "proc", kRoots.sys};
}

using test_support::BlockRecorder;

using test_support::listHeader;

void put32(Bytes& b, std::size_t at, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<std::uint8_t>(v >> (24 - 8 * i));
}

// A fresh 50-byte entry as the console reads it.
Bytes volumeEntry(const std::string& name, bool remote, std::uint32_t total, std::uint32_t free) {
  Bytes e(50, 0);
  if (remote) e[32] = 0x80;
  const std::size_t len = std::min<std::size_t>(name.size(), 32);
  e[0] = static_cast<std::uint8_t>(len);
  std::copy_n(name.begin(), len, e.begin() + 1);
  put32(e, 34, total);
  put32(e, 38, free);
  return e;
}

Bytes slice(const Bytes& b, std::size_t slot) {
  return Bytes(b.begin() + static_cast<std::ptrdiff_t>(slot * 50),
               b.begin() + static_cast<std::ptrdiff_t>(slot * 50 + 50));
}

std::vector<std::string> logged(const test_support::LogCapture& log) {
  auto lines = log.messages();
  lines.erase(std::remove(lines.begin(), lines.end(), "Log Opened Successfully"), lines.end());
  return lines;
}

// Mount points known to the fake: statvfs numbers, or an error, or a file.
struct FakeFs {
  struct Entry {
    bool directory = true;
    int error = 0;  // MountProbe::kUnreachable: the server is gone
    unsigned long blocks = 0, frsize = 4096, bsize = 4096, bavail = 0, bfree = 0;
  };
  std::map<std::string, Entry> entries;
  mutable std::vector<std::string> asked;

  MountProbe probe() const {
    MountProbe p;
    p.isDirectory = [this](const std::string& path) -> std::optional<bool> {
      asked.push_back(path);
      const auto it = entries.find(path);
      if (it != entries.end() && it->second.error == MountProbe::kUnreachable) return std::nullopt;
      return it != entries.end() && it->second.directory;
    };
    p.statvfs = [this](const std::string& path, struct statvfs& out) {
      asked.push_back(path);
      const auto it = entries.find(path);
      if (it == entries.end()) return ENOENT;
      if (it->second.error != 0) return it->second.error;
      out = {};
      out.f_blocks = it->second.blocks;
      out.f_frsize = it->second.frsize;
      out.f_bsize = it->second.bsize;
      out.f_bavail = it->second.bavail;
      out.f_bfree = it->second.bfree;
      return 0;
    };
    return p;
  }
};

// What the fixture machine's mounts answer. "/" is exactly 1 GiB with half of
// it free to users; bsize and bfree differ so that using them shows.
FakeFs fixtureFs() {
  FakeFs fs;
  fs.entries["/"] = {true, 0, 262144, 4096, 65536, 131072, 150000};
  fs.entries["/snap/core22/1621"] = {true, 0, 1002, 131072, 131072, 0, 0};
  fs.entries["/boot/efi"] = {true, 0, 1046016, 512, 512, 1031040, 1031040};
  fs.entries["/srv/data set"] = {true, 0, 244071424, 4096, 4096, 200000000, 200000000};
  fs.entries["/mnt/nfs"] = {true, 0, 1907348, 1048576, 1048576, 953674, 953674};
  fs.entries["/mnt/cifs"] = {true, EHOSTDOWN};
  fs.entries["/home/alice/build"] = {true, 0, 121815040, 4096, 4096, 60907520, 60907520};
  fs.entries["/media/alice/USB STICK"] = {true, 0, 7500000, 4096, 4096, 7000000, 7000000};
  fs.entries["/etc/hosts"] = {false};
  fs.entries["/mnt/projects/engineering/archive"] = {true, 0, 953674, 1048576, 1048576, 1, 1};
  fs.entries["/tank"] = {true, 0, 2000, 131072, 131072, 1000, 1000};
  // Pseudo file systems answer too, as they do on a real machine.
  for (const char* p : {"/sys", "/proc", "/dev", "/run", "/run/user/1000", "/sys/fs/cgroup",
                        "/run/user/1000/gvfs", "/var/lib/docker/overlay2/3f1c/merged"})
    fs.entries[p] = {true, 0, 1000, 4096, 4096, 1000, 1000};
  return fs;
}

struct Volume {
  std::string name;
  bool local;
  unsigned long long total, free;
  bool operator==(const Volume&) const = default;
};

std::vector<Volume> partitions(CHDInfo& info) {
  std::vector<Volume> out;
  Volume v;
  std::string path;
  while (info.getNextPartition(v.name, path, v.local, v.total, v.free) == 0) {
    EXPECT_EQ(path, v.name);
    out.push_back(v);
  }
  return out;
}

}  // namespace

TEST(CHDInfo, DisksAreNonRemovableBlockDevicesBehindADevice) {
  CHDInfo info(kRoots, fixtureFs().probe());
  ASSERT_EQ(info.enumHardDisks(), 0);
  std::vector<std::pair<std::string, unsigned long long>> disks;
  std::string name;
  unsigned long long size = 0;
  while (info.getNextHardDisk(name, size) == 0) disks.emplace_back(name, size);
  // sdb is removable; loop0 has no device link.
  const std::vector<std::pair<std::string, unsigned long long>> want = {
      {"nvme0n1", 1000215216ull * 512}, {"sda", 500118192ull * 512}, {"vdb", 0}};
  EXPECT_EQ(disks, want);
  EXPECT_EQ(info.getNextHardDisk(name, size), -1);
}

TEST(SendDiskList, SendsEveryDiskOfNonZeroSize) {
  CHDInfo info(kRoots, fixtureFs().probe());
  BlockRecorder rec;
  ASSERT_EQ(sendDiskList(info, rec.sink()), 0);
  ASSERT_EQ(rec.blocks.size(), 2u);
  EXPECT_EQ(rec.blocks[0], listHeader(26, 1, 2));
  ASSERT_EQ(rec.blocks[1].size(), 100u);
  EXPECT_EQ(slice(rec.blocks[1], 0), volumeEntry("nvme0n1", false, 4883844, 0));
  EXPECT_EQ(slice(rec.blocks[1], 1), volumeEntry("sda", false, 2441974, 0));
}

TEST(CHDInfo, VolumesAreTheMountsOfRealFileSystemsInMountOrder) {
  test_support::LogCapture log;
  const FakeFs fs = fixtureFs();
  CHDInfo info(kRoots, fs.probe());
  ASSERT_EQ(info.enumPartitions(), 0);
  // Left out: the pseudo file systems (gvfs is a "fuse" mount, the container
  // root an overlay), the snap image and the file bound over /etc/hosts. The
  // cifs server answers with an error: kept with size 0, and logged. zfs
  // needs no block device but is a volume.
  const std::vector<Volume> want = {
      {"/", true, 1073741824ull, 536870912ull},
      {"/boot/efi", true, 1046016ull * 512, 1031040ull * 512},
      {"/srv/data set", true, 244071424ull * 4096, 200000000ull * 4096},
      {"/mnt/nfs", false, 1907348ull * 1048576, 953674ull * 1048576},
      {"/mnt/cifs", false, 0, 0},
      {"/home/alice/build", false, 121815040ull * 4096, 60907520ull * 4096},
      {"/media/alice/USB STICK", true, 7500000ull * 4096, 7000000ull * 4096},
      {"/mnt/projects/engineering/archive", false, 953674ull * 1048576, 1048576},
      {"/tank", true, 2000ull * 131072, 1000ull * 131072},
  };
  EXPECT_EQ(partitions(info), want);
  EXPECT_EQ(logged(log),
            std::vector<std::string>{"Could not get the size of volume /mnt/cifs.  Error: 112"});
}

TEST(SendVolumeList, AllVolumesOnlyTheLocalOnesAndTheDeadOnes) {
  FakeFs fs = fixtureFs();
  {
    CHDInfo info(kRoots, fs.probe());
    BlockRecorder rec;
    ASSERT_EQ(sendVolumeList(info, 4, rec.sink()), 0);
    ASSERT_EQ(rec.blocks.size(), 2u);
    EXPECT_EQ(rec.blocks[0], listHeader(4, 1, 8)) << "the zero-size cifs volume is not sent";
    ASSERT_EQ(rec.blocks[1].size(), 8u * 50);
    // Exactly one gibibyte is 10239 units: the quotient is cut, not rounded.
    EXPECT_EQ(slice(rec.blocks[1], 0), volumeEntry("/", false, 10239, 5119));
    EXPECT_EQ(slice(rec.blocks[1], 2), volumeEntry("/srv/data set", false, 9534003, 7812470));
    EXPECT_EQ(slice(rec.blocks[1], 3), volumeEntry("/mnt/nfs", true, 19073407, 9536703));
    EXPECT_EQ(slice(rec.blocks[1], 4), volumeEntry("/home/alice/build", true, 4758381, 2379190));
    // A name of 32 characters or more writes its last one over the remote bit.
    Bytes cut = volumeEntry("/mnt/projects/engineering/archive", false, 9536703, 9);
    EXPECT_EQ(cut[32], 'v');
    EXPECT_EQ(slice(rec.blocks[1], 6), cut);
  }
  {
    // Local volumes only: no remote mount is even asked.
    CHDInfo info(kRoots, fs.probe());
    BlockRecorder rec;
    fs.asked.clear();
    ASSERT_EQ(sendVolumeList(info, 25, rec.sink()), 0);
    ASSERT_EQ(rec.blocks.size(), 2u);
    EXPECT_EQ(rec.blocks[0], listHeader(25, 1, 5));
    std::vector<std::string> names;
    for (std::size_t i = 0; i < 5; ++i) {
      const Bytes e = slice(rec.blocks[1], i);
      EXPECT_EQ(e[32] & 0x80, 0);
      names.emplace_back(e.begin() + 1, e.begin() + 1 + e[0]);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"/", "/boot/efi", "/srv/data set",
                                               "/media/alice/USB STICK", "/tank"}));
    for (const char* remote : {"/mnt/nfs", "/mnt/cifs", "/home/alice/build"})
      EXPECT_EQ(std::count(fs.asked.begin(), fs.asked.end(), remote), 0) << remote;
  }
  {
    // A server that does not answer: the volume is sent, its sizes 0.
    test_support::LogCapture log;
    fs.entries["/home/alice/build"].error = MountProbe::kUnreachable;
    CHDInfo info(kRoots, fs.probe());
    BlockRecorder rec;
    ASSERT_EQ(sendVolumeList(info, 4, rec.sink()), 0);
    ASSERT_EQ(rec.blocks.size(), 2u);
    EXPECT_EQ(slice(rec.blocks[1], 4), volumeEntry("/home/alice/build", true, 0, 0));
    EXPECT_TRUE(log.contains("Volume /home/alice/build did not answer; its size is sent as 0"));
  }
}

TEST(SendVolumeList, BatchesOfTenKeepWhatEarlierSlotsLeft) {
  // Eleven mounts: a 32-character local name first, a short remote one last,
  // so both land in slot 0 of their batches.
  test_support::TempDir dir;
  const std::string longName = "/srv/exports/a-very-long-name-xy";
  std::string lines;
  FakeFs fs;
  for (int i = 0; i < 11; ++i) {
    const std::string point = i == 0 ? longName : i == 10 ? "/mnt/n" : "/v" + std::to_string(i);
    const std::string type = i == 10 ? "nfs server:/x" : "ext4 /dev/sda" + std::to_string(i);
    lines += std::to_string(30 + i) + " 1 8:" + std::to_string(i) + " / " + point +
             " rw,relatime shared:1 - " + type + " rw\n";
    fs.entries[point] = {true, 0, 1000, 104858, 4096, 0, 0};
  }
  const HostRoots roots = withMounts(dir, lines);

  {
    test_support::TempDir ten;
    CHDInfo info(withMounts(ten, lines.substr(0, lines.rfind("40 1"))), fs.probe());
    BlockRecorder rec;
    ASSERT_EQ(sendVolumeList(info, 4, rec.sink()), 0);
    ASSERT_EQ(rec.blocks.size(), 3u);
    EXPECT_EQ(rec.blocks[0], listHeader(4, 0, 10));
    EXPECT_EQ(rec.blocks[1].size(), 500u);
    EXPECT_EQ(rec.blocks[2], listHeader(4, 1, 0));
  }

  CHDInfo info(roots, fs.probe());
  BlockRecorder rec;
  ASSERT_EQ(sendVolumeList(info, 4, rec.sink()), 0);
  ASSERT_EQ(rec.blocks.size(), 4u);
  EXPECT_EQ(rec.blocks[2], listHeader(4, 1, 1));
  Bytes want = volumeEntry(longName, false, 1000, 0);
  want[0] = 6;
  std::copy_n("/mnt/n", 6, want.begin() + 1);
  want[32] = 'y' | 0x80;  // the earlier name's last character, remote bit set
  EXPECT_EQ(rec.blocks[3], want);

  // Nothing after a refused block.
  for (std::size_t refuse : {0u, 1u, 2u, 3u}) {
    CHDInfo again(roots, fs.probe());
    BlockRecorder r;
    r.refuseAt = refuse;
    EXPECT_EQ(sendVolumeList(again, 4, r.sink()), -1);
    EXPECT_EQ(r.calls, refuse + 1);
  }
}

TEST(CHDInfo, MalformedOrMissingSourcesGiveNoEntries) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  std::filesystem::create_directories(dir / "self");
  test_support::spit(dir / "self/mountinfo",
                     "\n"
                     "garbage\n"
                     "31 1 8:1 / /short rw\n"
                     "32 1 8:1 / /nosep rw,relatime shared:1 ext4 /dev/sda1 rw\n"
                     "33 1 8:1 / /lastsep rw,relatime shared:1 -\n"
                     "34 1 0:40 / /run/lock rw,nosuid - tmpfs tmpfs rw\n");
  FakeFs fs;
  fs.entries["/run/lock"] = {true, 0, 1280, 4096, 4096, 1280, 1280};

  // Without the file system list nothing is known to be a pseudo one.
  CHDInfo info(HostRoots{dir.path, dir / "nosys"}, fs.probe());
  EXPECT_EQ(info.enumPartitions(), 0);
  EXPECT_EQ(partitions(info), (std::vector<Volume>{{"/run/lock", true, 1280 * 4096, 1280 * 4096}}));
  EXPECT_EQ(info.enumHardDisks(), 0);
  std::string name;
  unsigned long long size;
  EXPECT_EQ(info.getNextHardDisk(name, size), -1);
  EXPECT_EQ(logged(log),
            (std::vector<std::string>{
                "Could not read the file system list " + dir / "filesystems" + ".  Error: 2",
                "Error opening directory: " + dir / "nosys/block Error: 2"}));

  CHDInfo none(HostRoots{dir / "none", kRoots.sys}, fs.probe());
  BlockRecorder rec;
  EXPECT_EQ(sendVolumeList(none, 25, rec.sink()), 0);
  EXPECT_EQ(rec.blocks, std::vector<Bytes>{listHeader(25, 1, 0)});
  EXPECT_TRUE(
      log.contains("Could not read the mount table " + dir / "none/self/mountinfo" + ".  Error: 2"));
}

TEST(CHDInfo, DiskAttributesThatDoNotReadDropOrZeroTheDisk) {
  test_support::TempDir sys;
  const auto disk = [&](const std::string& name, const char* removable, const char* size) {
    const std::string d = sys / ("block/" + name);
    std::filesystem::create_directories(d);
    std::filesystem::create_directory_symlink("../../devices/x", d + "/device");
    if (removable != nullptr) test_support::spit(d + "/removable", removable);
    if (size != nullptr) test_support::spit(d + "/size", size);
  };
  disk("sda", "0\n", "12abc\n");                 // not a number: size 0
  disk("sdb", nullptr, "100\n");                 // no removable attribute
  disk("sdc", "0\n", nullptr);                   // no size
  disk("sdd", "0\n", "99999999999999999999\n");  // past 64 bits
  disk("sde", "0", "2048");                      // no newline
  CHDInfo info(HostRoots{kRoots.proc, sys.path}, FakeFs{}.probe());
  info.enumHardDisks();
  std::vector<std::pair<std::string, unsigned long long>> disks;
  std::string name;
  unsigned long long size = 0;
  while (info.getNextHardDisk(name, size) == 0) disks.emplace_back(name, size);
  const std::vector<std::pair<std::string, unsigned long long>> want = {
      {"sda", 0}, {"sdd", 0}, {"sde", 2048ull * 512}};
  EXPECT_EQ(disks, want);
}

TEST(CHDInfo, MountPathsLoseTheirOctalEscapes) {
  EXPECT_EQ(CHDInfo::unescapeMountPath("/media/USB\\040STICK"), "/media/USB STICK");
  EXPECT_EQ(CHDInfo::unescapeMountPath("/a\\011b\\012c\\134d"), "/a\tb\nc\\d");
  // Not an escape: left as it is.
  EXPECT_EQ(CHDInfo::unescapeMountPath("/a\\09x\\04"), "/a\\09x\\04");
  EXPECT_EQ(CHDInfo::unescapeMountPath("/end\\"), "/end\\");
  EXPECT_TRUE(CHDInfo::isNetworkFileSystem("fuse.sshfs"));
  EXPECT_FALSE(CHDInfo::isNetworkFileSystem("fuse"));
  EXPECT_FALSE(CHDInfo::isNetworkFileSystem("nfsd"));
}

namespace {

// What a console command makes of `reply`, sent by a peer on 127.0.0.1.
std::string consoleOutput(varloctl::Command& command, const Bytes& reply, bool json) {
  using varloctl_test::FakeAgent;
  FakeAgent agent({FakeAgent::send(reply)});
  std::string out;
  {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(agent.port());
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto session = varloctl::Session::open({a}, "127.0.0.1", 2000);
    const varloctl::Value v = command.run(session);
    out = json ? varloctl::JsonWriter::write(v) : varloctl::TableWriter::write(v);
  }
  agent.join();
  return out;
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

}  // namespace

TEST(VolumesCommand, ShowsSizesInMebibytesAndTheRemoteMark) {
  varloctl::VolumesCommand all(false), local(true);
  EXPECT_EQ(all.code(), 4);
  EXPECT_EQ(local.code(), 25);
  const Bytes reply = listHeader(4, 0, 2) + volumeEntry("/", false, 10239, 5119) +
                      volumeEntry("/mnt/nfs", true, 19073407, 9536703) + listHeader(4, 1, 1) +
                      volumeEntry("/mnt/projects/engineering/archive", false, 9536703, 9);
  // The 32-character name's last character sits on the flag byte: no mark.
  EXPECT_EQ(consoleOutput(all, reply, false),
            "NAME                              REMOTE  TOTAL MIB  FREE MIB\n"
            "/                                 no      1023.9     511.9\n"
            "/mnt/nfs                          yes     1907340.7  953670.3\n"
            "/mnt/projects/engineering/archiv  -       953670.3   0.9\n");
  EXPECT_EQ(consoleOutput(local, listHeader(25, 1, 1) + volumeEntry("/", false, 10239, 5119), true),
            "[\n"
            "  {\n"
            "    \"name\": \"/\",\n"
            "    \"remote\": false,\n"
            "    \"total_mib\": \"1023.9\",\n"
            "    \"free_mib\": \"511.9\"\n"
            "  }\n"
            "]\n");
}

TEST(DisksCommand, ShowsEachDiskAndItsSize) {
  varloctl::DisksCommand disks;
  EXPECT_EQ(disks.code(), 26);
  const Bytes reply = listHeader(26, 1, 2) + volumeEntry("nvme0n1", false, 4883844, 0) +
                      volumeEntry("sda", false, 2441974, 0);
  EXPECT_EQ(consoleOutput(disks, reply, false),
            "NAME     SIZE MIB\n"
            "nvme0n1  488384.4\n"
            "sda      244197.4\n");
}
