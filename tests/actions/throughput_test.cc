#include "actions/throughput_handler.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "console_end.h"
#include "prefs/prefs.h"
#include "session/session.h"
#include "test_support.h"
#include "varlo/volume_records.h"

namespace {

using test_support::Bytes;

TEST(Throughput, StreamsOneMebibytePerWritablePartitionAndWaitsForTheGoAhead) {
  test_support::TempDir dir, prefsDir;
  test_support::LogCapture log;
  for (const char* d : {"disk", "trap"}) mkdir((dir / d).c_str(), 0755);
  // A link planted where the file goes: never written through.
  test_support::spit(dir / "precious", "keep");
  symlink((dir / "precious").c_str(), (dir / "trap/vltmp").c_str());
  std::vector<CHDInfo::partition> parts(3);
  parts[0].name = "ro";
  parts[0].path = dir / "missing";
  parts[1].name = "trap";
  parts[1].path = dir / "trap";
  parts[2].name = "disk";
  parts[2].path = dir / "disk";

  PrefsSources sources;
  sources.localPrefsDir = prefsDir.path;
  CPrefs prefs(sources);
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  Session session(fds[0], 1, prefs);
  test_support::ConsoleEnd console(fds[1]);
  std::thread agent([&] { throughputTest(session, parts); });

  EXPECT_EQ(console.receive(14), test_support::listHeader(24, 0, 1));
  const Bytes record = console.receive(varlo::varlo_volume::kSize);
  Bytes expected(varlo::varlo_volume::kSize, 0);
  expected[0] = 4;
  std::copy_n("disk", 4, expected.begin() + 1);
  EXPECT_EQ(record, expected);
  const Bytes data = console.receive(128 * 8192);
  EXPECT_EQ(data, Bytes(128 * 8192, 0));
  ASSERT_TRUE(console.send(varlo::varlo_cmd_header{}.encode()));
  EXPECT_EQ(console.receive(14), test_support::listHeader(24, 1, 0));
  agent.join();

  EXPECT_EQ(test_support::slurp(dir / "precious"), "keep");
  EXPECT_FALSE(std::filesystem::exists(dir / "disk/vltmp")) << "removed once sent";
  EXPECT_TRUE(log.contains(" Unable to create temp file on partition ro"));
  EXPECT_TRUE(log.contains(" Unable to create temp file on partition trap"));
  EXPECT_EQ(throughputFilePath("/"), "/vltmp");
  EXPECT_EQ(throughputFilePath("/home"), "/home/vltmp");
}

}  // namespace
