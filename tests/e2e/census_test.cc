// The file-extension census (23) and the backup profiler (30) against the
// real agent: what the console receives while the walk runs and after, the
// day filter, and which disks each walk may count.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <map>

#include "console_end.h"
#include "sandbox/agent_test.h"
#include "varlo/software_records.h"
#include "varlo/volume_records.h"

namespace sandbox {
namespace {

using namespace std::chrono_literals;
using namespace varlo;
using test_support::Bytes;
using test_support::ConsoleEnd;

struct Census {
  std::vector<varlo_extensions> heartbeats;  // before the first batch
  std::vector<varlo_extensions> batches;
  // Five-character extensions are sent cut to four, so "class" and "clas"
  // both arrive as "clas": kept apart here.
  std::multimap<std::string, varlo_extension> extensions;
  bool whole = false;  // ended with a last header, every record complete
};

// One census reply as the console reads it: heartbeats (no records, not
// last) until the batches, then batches up to the last.
Census readCensus(ConsoleEnd& console) {
  Census c;
  for (;;) {
    bool ok = false;
    // A slow walk is kept alive by its heartbeat, once a second.
    const auto header = console.receiveRecord<varlo_extensions>(&ok);
    if (!ok) return c;
    if (header.count == 0 && !header.prefix.last && c.batches.empty()) {
      c.heartbeats.push_back(header);
      continue;
    }
    c.batches.push_back(header);
    const Bytes body = console.receive(header.count * varlo_extension::kSize);
    if (body.size() != header.count * varlo_extension::kSize) return c;
    for (std::size_t i = 0; i < header.count; ++i) {
      const auto e = varlo_extension::decodeAt(body.data() + i * varlo_extension::kSize);
      c.extensions.emplace(e.name, e);
    }
    if (header.prefix.last) {
      c.whole = true;
      return c;
    }
  }
}

std::uint32_t kilobytesOf(const std::string& path) {
  struct stat st{};
  lstat(path.c_str(), &st);
  return static_cast<std::uint32_t>(st.st_blocks * 512) >> 10;
}

class CensusTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    if (IsSkipped()) return;
    // On the sandbox's root: three new files and two old ones of extensions
    // nothing else on the machine has; one more on tmpfs /tmp, which is no disk.
    data_ = box().hostPath("/data");
    ASSERT_EQ(mkdir(data_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((data_ + "/deeper").c_str(), 0755), 0);
    test_support::spit(data_ + "/a.vlqa", std::string(5000, 'a'));
    test_support::spit(data_ + "/deeper/b.vlqa", "b");
    test_support::spit(data_ + "/c.vlqa", "");
    const time_t old = time(nullptr) - 3 * 86400;
    const timespec times[2] = {{old, 0}, {old, 0}};
    for (const char* name : {"/old1.vlqb", "/deeper/old2.vlqb"}) {
      test_support::spit(data_ + name, "old");
      utimensat(AT_FDCWD, (data_ + name).c_str(), times, 0);
    }
    test_support::spit(box().hostPath("/tmp/t.vlqc"), "tmp");
    agent_ = startAgent();
  }

  ConsoleEnd ask(std::uint16_t code, std::int32_t days) {
    auto console = ConsoleEnd::connectTo();
    EXPECT_TRUE(console.sendHeader(code, ""));
    EXPECT_TRUE(console.send(varlo_extensions_request{days}.encode()));
    return console;
  }

  std::string data_;
  Process agent_;
};

TEST_F(CensusTest, CountsThisHostsDisksByExtensionWithTheDayFilter) {
  Sandbox::NetworkScope net(box());
  struct Case {
    std::int32_t days;
    bool oldCounted;
  };
  for (const Case& c : {Case{0, true}, Case{1, false}, Case{-5, true}}) {
    auto console = ask(kFileExtensionCommand, c.days);
    const Census census = readCensus(console);
    ASSERT_TRUE(census.whole) << "days " << c.days;
    EXPECT_TRUE(console.closedByPeer());

    ASSERT_FALSE(census.heartbeats.empty()) << "the first beat goes out before the walk";
    std::uint32_t scanned = 0;
    for (const auto& beat : census.heartbeats) {
      EXPECT_EQ(beat.prefix.command, kFileExtensionCommand);
      EXPECT_GE(beat.filesScanned, scanned) << "files_scanned only grows";
      scanned = beat.filesScanned;
    }
    const std::uint32_t total = census.batches.back().filesScanned;
    EXPECT_GE(total, scanned);
    EXPECT_EQ(total % 10, 0u);
    std::uint64_t files = 0;
    for (std::size_t i = 0; i < census.batches.size(); ++i) {
      const auto& h = census.batches[i];
      EXPECT_EQ(h.prefix.command, kFileExtensionCommand);
      EXPECT_EQ(h.filesScanned, total);
      EXPECT_EQ(h.count, i + 1 < census.batches.size() ? 10 : census.extensions.size() % 10);
    }
    for (const auto& [name, e] : census.extensions) files += e.count + 1;
    EXPECT_EQ(total, files - files % 10) << "every counted file is in one extension";

    ASSERT_TRUE(census.extensions.count("vlqa")) << "days " << c.days;
    const auto& a = census.extensions.find("vlqa")->second;
    EXPECT_EQ(a.count, 2u) << "three files, sent as the number less one";
    EXPECT_EQ(a.sizeKb, kilobytesOf(data_ + "/a.vlqa") + kilobytesOf(data_ + "/deeper/b.vlqa") +
                            kilobytesOf(data_ + "/c.vlqa"));
    EXPECT_EQ(census.extensions.count("vlqb"), c.oldCounted ? 1u : 0u) << "days " << c.days;
    if (c.oldCounted) {
      EXPECT_EQ(census.extensions.find("vlqb")->second.count, 1u);
    }
    EXPECT_EQ(census.extensions.count("vlqc"), 0u) << "tmpfs is no disk of this host";
  }
}

struct Partition {
  varlo_volume volume;
  Census census;
};

TEST_F(CensusTest, ProfilerCountsEachLocalPartitionOnItsOwn) {
  Sandbox::NetworkScope net(box());
  auto console = ask(kBackupProfilerCommand, 0);
  std::vector<Partition> partitions;
  for (;;) {
    bool ok = false;
    const auto header = console.receiveRecord<varlo_list_header>(&ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(header.prefix.command, kBackupProfilerCommand);
    if (header.prefix.last) {
      EXPECT_EQ(header.count, 0);
      break;
    }
    ASSERT_EQ(header.count, 1);
    const Bytes volume = console.receive(varlo_volume::kSize);
    ASSERT_EQ(volume.size(), varlo_volume::kSize);
    Partition p{varlo_volume::decodeAt(volume.data()), readCensus(console)};
    ASSERT_TRUE(p.census.whole) << p.volume.name;
    for (const auto& beat : p.census.heartbeats)
      EXPECT_EQ(beat.prefix.command, kBackupProfilerCommand);
    for (const auto& h : p.census.batches) EXPECT_EQ(h.prefix.command, kFileExtensionCommand);
    partitions.push_back(std::move(p));
  }
  EXPECT_TRUE(console.closedByPeer());

  // The partitions are the local volumes of non-zero size, in their order.
  auto volumes = ConsoleEnd::connectTo();
  ASSERT_TRUE(volumes.sendHeader(kLocalVolumesCommand, ""));
  std::vector<std::string> expected;
  for (bool last = false; !last;) {
    const auto header = volumes.receiveRecord<varlo_list_header>();
    const Bytes body = volumes.receive(header.count * varlo_volume::kSize);
    ASSERT_EQ(body.size(), header.count * varlo_volume::kSize);
    for (std::size_t i = 0; i < header.count; ++i) {
      const auto v = varlo_volume::decodeAt(body.data() + i * varlo_volume::kSize);
      if (v.total != 0) expected.push_back(v.name);
    }
    last = header.prefix.last;
  }
  std::vector<std::string> names;
  for (const auto& p : partitions) names.push_back(p.volume.name);
  EXPECT_EQ(names, expected);
  ASSERT_THAT(names, ::testing::Contains("/"));
  ASSERT_THAT(names, ::testing::Contains("/usr"));

  // The root's census stays on the root: its own few files, none of /usr's.
  for (const auto& p : partitions) {
    std::uint64_t files = 0;
    for (const auto& [name, e] : p.census.extensions) files += e.count + 1;
    const bool isRoot = p.volume.name == "/";
    EXPECT_EQ(p.census.extensions.count("vlqa"), isRoot ? 1u : 0u) << p.volume.name;
    if (isRoot) {
      EXPECT_EQ(p.census.extensions.find("vlqa")->second.count, 2u);
      EXPECT_LT(files, 1000u) << "the root partition's census left its partition";
    }
    if (p.volume.name == "/usr") {
      EXPECT_GT(files, 1000u);
    }
    EXPECT_EQ(p.census.extensions.count("vlqc"), 0u) << p.volume.name;
  }
}

}  // namespace
}  // namespace sandbox
