// Init scripts of a fixture folder, their processes in a fixture proc tree,
// and the status commands of scripts written by the test.
#include "software/init_script.h"
#include "software/services.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>

#include "test_support.h"

namespace {

const std::string kSoftware = std::string(VARLO_FIXTURES) + "/software";
const std::string kNoSystemd = "/nonexistent/systemd/system";
using Map = std::map<std::string, std::string>;

Map drain(CServices& s) {
  Map out;
  s.resetPtr();
  for (std::string n, v; s.getNextService(n, v) == 0;) out.emplace(n, v);
  return out;
}

void script(const std::string& path, const std::string& body) {
  test_support::spit(path, "#!/bin/sh\n" + body + "\n");
  ASSERT_EQ(chmod(path.c_str(), 0755), 0);
}

}  // namespace

TEST(CInitScript, DaemonBeforeTheFirstNameWinsAndVariablesAreRefused) {
  using V = CInitScript::Verdict;
  struct Case {
    const char* text;
    V verdict;
    std::string service;
  };
  const Case cases[] = {
      {"DAEMON=/usr/sbin/foo\nNAME=bar\n", V::kService, "foo"},
      {"NAME=bar\nDAEMON=/usr/sbin/foo\n", V::kService, "bar"},  // the scan stopped at NAME=
      {"NAME=x\n", V::kNoName, ""},                               // too short
      {"NAME=xy\n", V::kService, "xy"},
      {"NAME=${0##*/}\n", V::kVariable, ""},
      {"DAEMON=$BIN\nNAME=ok\n", V::kVariable, ""},  // the daemon wins, even a variable
      {"DAEMON=\nNAME=named\n", V::kService, "named"},
      {"DAEMON_ARGS=-x NAME=n2\n", V::kService, "n2"},      // DAEMON_ is not DAEMON=
      {"PNAME=pn XNAME=no\n", V::kService, "pn"},           // NAME= within seven characters
      {"LONGNAME=ln NAME=real\n", V::kService, "real"},     // NAME= too far in
      {"DAEMON=\"/usr/bin/q\"\n", V::kService, "q\""},      // quotes are not shell here
      {"DAEMON=/usr/sbin/\n", V::kNoName, ""},              // a folder names nothing
      {"DAEMON=a=b/c\n", V::kService, "c"},                 // after the first '='
      {"# DAEMON=/from/comment\n", V::kService, "comment"},  // words, not lines
      {"", V::kNoName, ""},
      {"\t \n", V::kNoName, ""},
  };
  for (const Case& c : cases) {
    std::string service = "untouched";
    EXPECT_EQ(CInitScript::serviceOf(c.text, service), c.verdict) << c.text;
    if (c.verdict == V::kService) EXPECT_EQ(service, c.service) << c.text;
    else EXPECT_EQ(service, "untouched") << c.text;
  }
}

TEST(CServices, InitScriptsOfTheFixtureWithTheirProcesses) {
  test_support::LogCapture log;
  CServices services(HostRoots{kSoftware + "/proc"}, kSoftware + "/etc/init.d", kNoSystemd);
  ASSERT_EQ(services.enumServices(), 0);
  EXPECT_EQ(drain(services), (Map{
                                 {"cron", "Running"},         // NAME= before DAEMON=
                                 {"dbus-daemon", "Running"},  // DAEMON= before NAME=
                                 {"snmpd", "Running"},        // a zombie counts
                                 {"sysctl", "Unknown"},
                             }));
  // x11-common's NAME=${0##*/}; hwclock.sh and rc.local (NAME=x) pass silently.
  EXPECT_EQ(log.count("Could not add service because of variable substition in name"), 1);
  EXPECT_TRUE(log.contains("Unable to open file " + kSoftware + "/proc/500/stat"));
  EXPECT_EQ(log.messages().size(), 3u);
}

TEST(CServices, AnUnreadableScriptIsLoggedAndTheOthersStay) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  script(dir / "good", "DAEMON=/usr/sbin/goodd");
  ASSERT_EQ(symlink((dir / "gone").c_str(), (dir / "dangling").c_str()), 0);
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0644), 0);  // must not block the reader
  CServices services(HostRoots{dir / "noproc"}, dir.path, kNoSystemd);
  ASSERT_EQ(services.enumServicesAlternative(dir.path), 0);
  EXPECT_EQ(drain(services), (Map{{"goodd", "Unknown"}}));
  EXPECT_TRUE(log.contains("Unable to open file " + dir / "dangling"));
  EXPECT_TRUE(log.contains("Error opening directory: " + dir / "noproc" + " Error: 2"));
}

TEST(CServices, AMissingInitFolderIsLoggedAndEmpty) {
  test_support::LogCapture log;
  CServices services(HostRoots{kSoftware + "/proc"}, "/nonexistent/init.d", kNoSystemd);
  EXPECT_EQ(services.enumServicesAlternative("/nonexistent/init.d"), -1);
  EXPECT_TRUE(services.services().empty());
  EXPECT_TRUE(log.contains("Error opening directory: /nonexistent/init.d Error: 2"));
}

TEST(CServices, StatusCommandOutputDecidesBeforeTheExitCode) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  struct Case {
    const char* name;
    const char* body;
    const char* status;
  };
  const Case cases[] = {
      {"caps", "echo 'daemon is RUNNING'; exit 3", "Running"},
      {"stopped", "echo 'Stopped.'; exit 0", "Stopped"},
      // "not running" holds "running": the words decide, not their sense.
      {"notrunning", "echo 'foo is not running'; exit 3", "Running"},
      {"silent0", "exit 0", "Unknown"},  // no output: the exit code is not asked
      {"silent3", "exit 3", "Unknown"},
      {"code0", "echo ok; exit 0", "Running"},
      {"code1", "echo dead; exit 1", "Stopped"},
      {"code3", "echo dead; exit 3", "Stopped"},
      {"code4", "echo what; exit 4", "Unknown"},
      {"signalled", "echo what; kill -9 $$", "Unknown"},
      {"stderr", "echo running >&2; exit 0", "Unknown"},  // only standard output counts
      {"arg", "echo \"$1\"; exit 9", "Unknown"},            // "status" holds neither word
      {"long", "head -c 5000 /dev/zero | tr '\\0' x; echo RUNNING", "Running"},  // in pieces
  };
  for (const Case& c : cases) script(dir / c.name, c.body);
  CServices services(HostRoots{}, dir.path, kNoSystemd);
  for (const Case& c : cases) {
    services.runStatusCmd(c.name);
    EXPECT_EQ(services.services().at(c.name), c.status) << c.name;
  }
  services.runStatusCmd("missing");  // the shell fails: no output
  EXPECT_EQ(services.services().at("missing"), "Unknown");
}

TEST(CServices, AStatusCommandThatHangsIsStoppedAndReaped) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  script(dir / "hang", "echo running; sleep 30 & sleep 30");
  script(dir / "closes", "exec >&-; sleep 30");
  CServices services(HostRoots{}, dir.path, kNoSystemd);
  services.statusTimeout = std::chrono::milliseconds(300);
  for (const char* name : {"hang", "closes"}) {
    const auto start = std::chrono::steady_clock::now();
    services.runStatusCmd(name);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << name;
    EXPECT_EQ(services.services().at(name), "Unknown") << name;
    EXPECT_TRUE(log.contains(std::string("Status command for service ") + name +
                             " did not finish; stopped it"));
  }
  int status = 0;
  EXPECT_EQ(waitpid(-1, &status, WNOHANG), -1) << "a child was left unreaped";
}
