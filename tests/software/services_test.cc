// What an init script names, and what its status command says.
#include "software/init_script.h"
#include "software/services.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <tuple>

#include "test_support.h"

namespace {
void script(const std::string& path, const std::string& body) {
  test_support::spit(path, "#!/bin/sh\n" + body + "\n");
  ASSERT_EQ(chmod(path.c_str(), 0755), 0);
}
}  // namespace

TEST(CInitScript, DaemonBeforeTheFirstNameWinsAndVariablesAreRefused) {
  using V = CInitScript::Verdict;
  const std::tuple<const char*, V, std::string> cases[] = {  // script, verdict, service
      {"DAEMON=/usr/sbin/foo\nNAME=bar\n", V::kService, "foo"},
      {"NAME=bar\nDAEMON=/usr/sbin/foo\n", V::kService, "bar"},  // the scan stops at NAME=
      {"NAME=x\n", V::kNoName, ""},                               // too short
      {"NAME=${0##*/}\n", V::kVariable, ""},
      {"DAEMON=$BIN\nNAME=ok\n", V::kVariable, ""},      // the daemon wins, even a variable
      {"DAEMON_ARGS=-x PNAME=pn\n", V::kService, "pn"},  // NAME= within seven characters
      {"DAEMON=/usr/sbin/\n", V::kNoName, ""},           // a folder names nothing
  };
  for (const auto& [text, verdict, expected] : cases) {
    std::string service = "untouched";
    EXPECT_EQ(CInitScript::serviceOf(text, service), verdict) << text;
    EXPECT_EQ(service, verdict == V::kService ? expected : "untouched") << text;
  }
  test_support::LogCapture log;  // x11-common's NAME=${0##*/} is logged and left out
  CServices services(HostRoots{"/nonexistent"}, "", "/nonexistent");
  ASSERT_EQ(services.enumServicesAlternative(VARLO_FIXTURES "/software/etc/init.d"), 0);
  EXPECT_EQ(log.count("Could not add service because of variable substition in name"), 1);
  EXPECT_EQ(services.services().size(), 4u);  // cron, dbus-daemon, snmpd, sysctl
}

TEST(CServices, StatusCommandOutputDecidesBeforeTheExitCodeAndAHangIsStopped) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  const char* cases[][3] = {
      {"caps", "echo 'daemon is RUNNING'; exit 3", "Running"},
      {"stopped", "echo 'Stopped.'; exit 0", "Stopped"},
      {"silent0", "exit 0", "Unknown"},  // no output: the exit code is not asked
      {"silent3", "exit 3", "Unknown"},
      {"code0", "echo ok; exit 0", "Running"},
      {"code3", "echo dead; exit 3", "Stopped"},
      {"code4", "echo what; exit 4", "Unknown"},
      {"signalled", "echo what; kill -9 $$", "Unknown"},
      {"stderr", "echo running >&2; exit 0", "Unknown"},  // only standard output counts
      {"arg", "[ \"$1\" = status ] && echo running", "Running"},
      {"long", "head -c 5000 /dev/zero | tr '\\0' x; echo RUNNING", "Running"},  // in pieces
      {"hang", "echo running; sleep 30 & sleep 30", "Unknown"},  // stopped: no verdict
      {"closes", "exec >&-; sleep 30", "Unknown"},
  };
  for (const auto& c : cases) script(dir / c[0], c[1]);
  CServices services(HostRoots{}, dir.path, "/nonexistent");
  services.statusTimeout = std::chrono::milliseconds(500);
  const auto start = std::chrono::steady_clock::now();
  for (const auto& c : cases) {
    services.runStatusCmd(c[0]);
    EXPECT_EQ(services.services().at(c[0]), c[2]) << c[0];
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  for (const std::string name : {"hang", "closes"})
    EXPECT_TRUE(log.contains("Status command for service " + name + " did not finish; stopped it"));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left unreaped";
}
