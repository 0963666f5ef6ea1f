// Processes of a fixture proc tree and the batch they are sent in.
#include "inventory/process_info.h"
#include "inventory/processes_handler.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "test_support.h"
#include "varlo/coding.h"

using Bytes = std::vector<std::uint8_t>;

namespace {

const std::string kProc = std::string(VARLO_FIXTURES) + "/proc";

// What parseStat makes of a file: "name id size cpu", or the one line it logs.
std::string parsed(const std::string& path) {
  test_support::LogCapture log;
  varlo::varlo_proc p;
  p.name = "stale";
  if (CProcessInfo::parseStat(path, p) == 0)
    return p.name + " " + std::to_string(p.id) + " " + std::to_string(p.size) + " " +
           std::to_string(p.cpuSecs) + (p.type == varlo::varlo_proc::kTypeAppl ? "" : " not APPL");
  const auto lines = log.messages();  // the first is the log's own
  return (p.name.empty() ? "" : "not cleared: ") + (lines.size() == 2 ? lines[1] : "?");
}

}  // namespace

TEST(CProcessInfo, ParseStatTakesNameIdSizeAndTheChildrensTimeOrSaysWhyNot) {
  test_support::TempDir dir;
  // One endless token: the name buffer must not overflow.
  test_support::spit(dir / "token", "7 (" + std::string(100000, 'x') + ")");
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  const std::string bad = "Error in process information.  Needed 8 got ";
  const auto file = [](const std::string& pid) { return kProc + "/" + pid + "/stat"; };
  const std::pair<std::string, std::string> cases[] = {
      // Only the waited-for children's time counts: cutime 4649 + cstime 464.
      {file("18039"), "bash 18039 5259264 " + std::to_string((4649 + 464) / sysconf(_SC_CLK_TCK))},
      {file("2"), "kthreadd 2 0 0"},
      {file("11359"), "kworker/0:0-cgroup_pidlist_destr 11359 0 0"},  // cut to 32
      // "(my)prog)": the name ends at its first ')'; a size past 32 bits saturates.
      {file("4100"), "my 4100 4294967295 0"},
      {file("4200"), "tmux: server 4200 8851456 0"},  // a name with a blank is kept whole
      {file("4300"), bad + "7.  Process: " + file("4300")},
      {file("4500"), "Could not open file " + file("4500") + " Error: 2"},
      {dir / "token", bad + "2.  Process: " + dir / "token"},
      {dir / "fifo", bad + "0.  Process: " + dir / "fifo"},
  };
  for (const auto& [path, want] : cases) EXPECT_EQ(parsed(path), want) << path;
}

TEST(SendProcessList, EveryReadableProcessInOneBatch) {
  test_support::LogCapture log;
  CProcessInfo info(HostRoots{kProc});
  test_support::BlockRecorder rec;
  ASSERT_EQ(sendProcessList(info, rec.sink()), 0);
  // 4300, 4400 and 4500 do not read; "self" (18039 again) and "net" are no processes.
  ASSERT_EQ(rec.blocks.size(), 2u);
  EXPECT_EQ(rec.blocks[0], test_support::listHeader(3, 1, 6));
  ASSERT_EQ(rec.blocks[1].size(), 6u * 66);
  Bytes bash(66, 0);  // as the console reads it
  std::copy_n("\x04" "bash", 5, bash.begin());
  varlo::putU32(bash.data() + 34, 0x4150504C);  // 'APPL'
  varlo::putU32(bash.data() + 38, 5259264);
  varlo::putU32(bash.data() + 42, static_cast<std::uint32_t>((4649 + 464) / sysconf(_SC_CLK_TCK)));
  varlo::putU32(bash.data() + 50, 18039);
  int found = 0;
  for (auto at = rec.blocks[1].begin(); at != rec.blocks[1].end(); at += 66)
    found += Bytes(at, at + 66) == bash;
  EXPECT_EQ(found, 1);
}
