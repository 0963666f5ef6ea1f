#include "inventory/process_info.h"
#include "inventory/processes_handler.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "test_support.h"
#include "varloctl/processes_command.h"
#include "varloctl/table_writer.h"
#include "varloctl_fake_agent.h"

using varlo::varlo_proc;
using Bytes = std::vector<std::uint8_t>;

namespace {

const std::string kProc = std::string(VARLO_FIXTURES) + "/proc";

using test_support::BlockRecorder;

using test_support::listHeader;

void put32(Bytes& b, std::size_t at, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<std::uint8_t>(v >> (24 - 8 * i));
}

// A fresh 66-byte process entry as the console reads it.
Bytes procEntry(const std::string& name, std::uint32_t size, std::uint32_t cpu, std::uint32_t id) {
  Bytes e(66, 0);
  e[0] = static_cast<std::uint8_t>(name.size());
  std::copy(name.begin(), name.end(), e.begin() + 1);
  put32(e, 34, 0x4150504C);
  put32(e, 38, size);
  put32(e, 42, cpu);
  put32(e, 50, id);
  return e;
}

// Names in the order readdir gives them, the order the list must follow.
std::vector<std::string> directoryOrder(const std::string& root) {
  std::vector<std::string> out;
  DIR* d = opendir(root.c_str());
  if (d == nullptr) return out;
  while (dirent* e = readdir(d)) out.push_back(e->d_name);
  closedir(d);
  return out;
}

std::string statLine(const std::string& pid, const std::string& name) {
  return pid + " (" + name + ") S 1 " + pid + " " + pid +
         " 0 -1 4194560 100 0 0 0 2 1 0 0 20 0 1 0 5000 1048576 200 18446744073709551615 1 1 0"
         " 0 0 0 0 0 0 0 0 0 17 0 0 0 0 0 0\n";
}

// A proc root holding processes 101, 102, ... with the given names.
void makeProcesses(const std::string& root, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::string pid = std::to_string(101 + i);
    ASSERT_EQ(mkdir((root + "/" + pid).c_str(), 0755), 0);
    test_support::spit(root + "/" + pid + "/stat", statLine(pid, "p" + pid));
  }
}

// What the code under test logged, without the log's own opening line.
std::vector<std::string> logged(const test_support::LogCapture& log) {
  auto lines = log.messages();
  lines.erase(std::remove(lines.begin(), lines.end(), "Log Opened Successfully"), lines.end());
  return lines;
}

std::vector<std::string> processDirs(const std::string& root) {
  auto names = directoryOrder(root);
  names.erase(std::remove_if(names.begin(), names.end(),
                             [](const std::string& n) {
                               return n.empty() ||
                                      n.find_first_not_of("0123456789") != std::string::npos;
                             }),
              names.end());
  return names;
}

}  // namespace

TEST(CProcessInfo, ParseStatTakesTheEightValues) {
  const long ticks = sysconf(_SC_CLK_TCK);
  ASSERT_GT(ticks, 0);
  varlo_proc p;
  ASSERT_EQ(CProcessInfo::parseStat(kProc + "/18039/stat", p), 0);
  EXPECT_EQ(p.name, "bash");
  EXPECT_EQ(p.id, 18039u);
  EXPECT_EQ(p.size, 5259264u);
  // Only the waited-for children's time counts: cutime 4649 + cstime 464.
  EXPECT_EQ(p.cpuSecs, static_cast<std::uint32_t>((4649 + 464) / ticks));
  EXPECT_EQ(p.type, 0x4150504Cu);
  EXPECT_EQ(p.reserved, 0u);

  ASSERT_EQ(CProcessInfo::parseStat(kProc + "/2/stat", p), 0);
  EXPECT_EQ(p.name, "kthreadd");
  EXPECT_EQ(p.size, 0u);
  EXPECT_EQ(p.cpuSecs, 0u);

  ASSERT_EQ(CProcessInfo::parseStat(kProc + "/11359/stat", p), 0);
  EXPECT_EQ(p.name, "kworker/0:0-cgroup_pidlist_destr");

  // The name ends at its first ')'; a size past 32 bits saturates.
  ASSERT_EQ(CProcessInfo::parseStat(kProc + "/4100/stat", p), 0);
  EXPECT_EQ(p.name, "my");
  EXPECT_EQ(p.id, 4100u);
  EXPECT_EQ(p.size, 0xFFFFFFFFu);
}

TEST(CProcessInfo, ParseStatRefusesLinesThatDoNotScan) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  test_support::spit(dir / "empty", "");
  // One endless token: the name buffer must not overflow.
  test_support::spit(dir / "token", "7 (" + std::string(100000, 'x') + ")");
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);

  varlo_proc p;
  p.name = "stale";
  const struct {
    std::string path;
    std::string message;
  } cases[] = {
      {kProc + "/4300/stat",
       "Error in process information.  Needed 8 got 7.  Process: " + kProc + "/4300/stat"},
      {kProc + "/4400/stat",
       "Error in process information.  Needed 8 got 2.  Process: " + kProc + "/4400/stat"},
      {kProc + "/4500/stat", "Could not open file " + kProc + "/4500/stat Error: 2"},
      {dir / "empty", "Error in process information.  Needed 8 got 0.  Process: " + dir / "empty"},
      {dir / "token", "Error in process information.  Needed 8 got 2.  Process: " + dir / "token"},
      {dir / "fifo", "Error in process information.  Needed 8 got 0.  Process: " + dir / "fifo"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CProcessInfo::parseStat(c.path, p), -1) << c.path;
    EXPECT_TRUE(log.contains(c.message)) << c.message;
    EXPECT_EQ(p.name, "") << "the entry is cleared first";
  }
  EXPECT_EQ(logged(log).size(), std::size(cases));
}

TEST(CProcessInfo, EnumeratesNumericDirectoriesInDirectoryOrder) {
  test_support::LogCapture log;
  CProcessInfo info(HostRoots{kProc});
  info.enumProcesses();

  // "self" links to 18039 and "net" is a directory: neither is a process.
  const std::vector<std::string> good = {"1", "2", "11359", "18039", "4100", "4200"};
  std::vector<std::uint32_t> expected;
  for (const auto& name : processDirs(kProc))
    if (std::find(good.begin(), good.end(), name) != good.end())
      expected.push_back(static_cast<std::uint32_t>(std::stoul(name)));

  std::vector<std::uint32_t> ids;
  varlo_proc p;
  while (info.getNext(p) == 0) ids.push_back(p.id);
  EXPECT_EQ(ids, expected);
  EXPECT_EQ(info.getNext(p), -1);
  EXPECT_EQ(logged(log).size(), 3u) << "4300, 4400 and 4500 are logged";

  EXPECT_TRUE(info.isRunning("bash"));
  EXPECT_TRUE(info.isRunning("my"));
  EXPECT_FALSE(info.isRunning("ba"));
  EXPECT_TRUE(info.isRunning("tmux: server")) << "a name with a blank is kept whole";
  EXPECT_FALSE(info.isRunning("tmux:"));

  info.rewind();
  ASSERT_EQ(info.getNext(p), 0);
  EXPECT_EQ(p.id, expected.front());

  // A second walk starts afresh rather than appending.
  info.enumProcesses();
  EXPECT_EQ(info.size(), expected.size());

  CProcessInfo missing(HostRoots{kProc + "/absent"});
  missing.enumProcesses();
  EXPECT_EQ(missing.size(), 0u);
  EXPECT_TRUE(log.contains("Error opening directory: " + kProc + "/absent Error: 2"));
}

TEST(SendProcessList, TwentyProcessesMakeTwoFullBatchesAndAnEmptyClosingOne) {
  test_support::LogCapture log;
  test_support::TempDir root;
  makeProcesses(root.path, 20);
  const auto order = processDirs(root.path);
  ASSERT_EQ(order.size(), 20u);

  CProcessInfo info(HostRoots{root.path});
  BlockRecorder rec;
  ASSERT_EQ(sendProcessList(info, rec.sink()), 0);

  ASSERT_EQ(rec.blocks.size(), 5u);
  EXPECT_EQ(rec.blocks[0], listHeader(3, 0, 10));
  EXPECT_EQ(rec.blocks[2], listHeader(3, 0, 10));
  EXPECT_EQ(rec.blocks[4], listHeader(3, 1, 0));
  for (int b : {1, 3}) {
    ASSERT_EQ(rec.blocks[b].size(), 660u);
    for (std::size_t slot = 0; slot < 10; ++slot) {
      const std::string& pid = order[(b / 2) * 10 + slot];
      const Bytes want = procEntry("p" + pid, 1048576, 0, std::stoul(pid));
      EXPECT_TRUE(std::equal(want.begin(), want.end(), rec.blocks[b].begin() + slot * 66))
          << "batch " << b / 2 << " slot " << slot;
    }
  }
  EXPECT_TRUE(logged(log).empty()) << "no log line for the batches";
}

TEST(SendProcessList, NoProcessesGiveOnlyTheClosingHeader) {
  test_support::TempDir root;
  CProcessInfo info(HostRoots{root.path});
  BlockRecorder rec;
  ASSERT_EQ(sendProcessList(info, rec.sink()), 0);
  ASSERT_EQ(rec.blocks.size(), 1u);
  EXPECT_EQ(rec.blocks[0], listHeader(3, 1, 0));
}

TEST(SendProcessList, ASlotKeepsTheTailOfAnEarlierLongerName) {
  test_support::TempDir root;
  makeProcesses(root.path, 11);
  const auto order = processDirs(root.path);
  ASSERT_EQ(order.size(), 11u);
  // The first in directory order fills slot 0 of batch one, the last slot 0
  // of batch two.
  const std::string longName = "abcdefghijklmnopqrstuvwxyz012345";
  test_support::spit(root / (order.front() + "/stat"), statLine(order.front(), longName));
  test_support::spit(root / (order.back() + "/stat"), statLine(order.back(), "ab"));

  CProcessInfo info(HostRoots{root.path});
  BlockRecorder rec;
  ASSERT_EQ(sendProcessList(info, rec.sink()), 0);
  ASSERT_EQ(rec.blocks.size(), 4u);
  EXPECT_EQ(rec.blocks[2], listHeader(3, 1, 1));

  Bytes want = procEntry(longName, 1048576, 0, std::stoul(order.back()));
  want[0] = 2;
  want[1] = 'a';
  want[2] = 'b';
  EXPECT_EQ(rec.blocks[3], want);
}

TEST(SendProcessList, StopsAtTheFirstRefusedBlock) {
  test_support::TempDir root;
  makeProcesses(root.path, 13);
  for (std::size_t refuse : {1u, 2u, 3u}) {
    CProcessInfo info(HostRoots{root.path});
    BlockRecorder rec;
    rec.refuseAt = refuse;
    EXPECT_EQ(sendProcessList(info, rec.sink()), -1);
    EXPECT_EQ(rec.calls, refuse + 1) << "nothing after the refused block";
  }
  // The closing batch: header, then the three entries.
  CProcessInfo info(HostRoots{root.path});
  BlockRecorder rec;
  ASSERT_EQ(sendProcessList(info, rec.sink()), 0);
  ASSERT_EQ(rec.blocks.size(), 4u);
  EXPECT_EQ(rec.blocks[2], listHeader(3, 1, 3));
  EXPECT_EQ(rec.blocks[3].size(), 3u * 66);
}

TEST(ProcessesCommand, ReadsBatchesUntilTheLastHeader) {
  using varloctl_test::FakeAgent;
  const Bytes reply = [] {
    Bytes r = listHeader(3, 0, 1);
    const Bytes bash = procEntry("bash", 5259264, 51, 18039);
    r.insert(r.end(), bash.begin(), bash.end());
    const Bytes last = listHeader(3, 1, 1);
    r.insert(r.end(), last.begin(), last.end());
    const Bytes worker = procEntry("kworker/0:0-cgroup_pidlist_destr", 0xFFFFFFFF, 0, 11359);
    r.insert(r.end(), worker.begin(), worker.end());
    return r;
  }();
  FakeAgent agent({FakeAgent::send(reply)});
  varloctl::ProcessesCommand command;
  EXPECT_EQ(command.code(), 3);
  std::string table;
  {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(agent.port());
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto session = varloctl::Session::open({a}, "127.0.0.1", 2000);
    table = varloctl::TableWriter::write(command.run(session));
  }
  agent.join();
  EXPECT_EQ(table,
            "PID    NAME                              VIRTUAL SIZE  CHILD CPU SECONDS\n"
            "18039  bash                              5259264       51\n"
            "11359  kworker/0:0-cgroup_pidlist_destr  4294967295    0\n");
}
