// Launch App's refusals and Send Message's terminals, for a real
// unprivileged user ("nobody"); what they start is recorded by stand-ins.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <sys/wait.h>
#include <utmpx.h>

#include <algorithm>

#include <cstring>

#include "actions/launch_app_handler.h"
#include "actions/send_message_handler.h"
#include "actions/user_process.h"
#include "console_end.h"
#include "prefs/prefs.h"
#include "session/session.h"
#include "test_support.h"

namespace {

using namespace std::chrono_literals;
using test_support::Bytes;

TEST(LaunchApp, ListLinesByIndex) {
  const std::string list = "1 /usr/bin/a\n3 /Applications/Some App.app\nx 9\n12 /twelve\n";
  EXPECT_EQ(findListedApp(list, 3), " /Applications/Some App.app") << "the blank stays";
  EXPECT_EQ(findListedApp(list, 12), " /twelve");
  EXPECT_EQ(findListedApp(list, 2), std::nullopt);
  EXPECT_EQ(findListedApp(list, 9), std::nullopt);
  EXPECT_EQ(findListedApp("4 " + std::string(600, 'p'), 4)->size(), 500u);
}

class UserActionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act in another user's name";
    // A record directory the user may write; stand-ins it may run.
    chmod(dir_.path.c_str(), 0755);
    ASSERT_EQ(mkdir(record_.c_str(), 0777), 0);
    chmod(record_.c_str(), 0777);
    ASSERT_EQ(mkdir((dir_ / "bin").c_str(), 0755), 0);
    test_support::spit(dir_ / "bin/xdg-open", "#!/bin/sh\necho \"$@\" > " + record_ + "/xdg-open\n");
    chmod((dir_ / "bin/xdg-open").c_str(), 0755);
    PrefsSources sources;
    sources.localPrefsDir = (dir_ / "prefs");
    sources.logindSeats = dir_ / "no-seats";
    sources.utmp = dir_ / "utmp";
    sources.folders.clear();
    mkdir(sources.localPrefsDir.c_str(), 0700);
    prefs_ = std::make_unique<CPrefs>(sources);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    session_ = std::make_unique<Session>(fds[0], 1, *prefs_);
    console_ = test_support::ConsoleEnd(fds[1]);
  }

  void logIn(const char* user, const std::vector<std::string>& lines = {"tty1"}) {
    std::ofstream out(dir_ / "utmp", std::ios::binary);
    for (const std::string& line : lines) {
      utmpx login{};
      login.ut_type = USER_PROCESS;
      std::strncpy(login.ut_line, line.c_str(), sizeof login.ut_line - 1);
      std::strcpy(login.ut_user, user);
      out.write(reinterpret_cast<const char*>(&login), sizeof login);
    }
  }

  std::string replyText() {
    const Bytes r = console_.receive(varlo::varlo_manage::kSize);
    if (r.size() != varlo::varlo_manage::kSize) return "(none)";
    return (r[2] ? "ok:" : "refused:") + std::string(reinterpret_cast<const char*>(&r[69]), r[68]);
  }

  test_support::TempDir dir_;
  std::string record_ = dir_ / "record";
  test_support::LogCapture log_;
  std::unique_ptr<CPrefs> prefs_;
  std::unique_ptr<Session> session_;
  test_support::ConsoleEnd console_;
};

TEST_F(UserActionTest, LaunchAppRefusals) {
  test_support::spit(dir_ / "applist", "1 /usr/bin/a\n");
  const LaunchSettings settings{dir_ / "applist", dir_ / "launch.log", dir_ / "bin", 0ms};
  launchApp(*session_, 1, settings);
  EXPECT_EQ(replyText(), "refused:No user is logged in to launch application");
  logIn("nobody");
  launchApp(*session_, 2, settings);
  EXPECT_EQ(replyText(), "refused:The application could not be found");
  // A list that is not the agent's own: somebody else's file, or a link.
  chown((dir_ / "applist").c_str(), 65534, 65534);
  launchApp(*session_, 1, settings);
  EXPECT_EQ(replyText(), "refused:Could not open Application Cache");
  symlink((dir_ / "applist").c_str(), (dir_ / "linked").c_str());
  launchApp(*session_, 1, LaunchSettings{dir_ / "linked", dir_ / "launch.log", dir_ / "bin", 0ms});
  EXPECT_EQ(replyText(), "refused:Could not open Application Cache");
  logIn("root");
  chown((dir_ / "applist").c_str(), 0, 0);
  launchApp(*session_, 1, settings);
  EXPECT_EQ(replyText(), "refused:The application could not be launched") << "never as root";
  EXPECT_FALSE(test_support::slurp(record_ + "/xdg-open").has_value());
}

// Where systemd runs, Launch App leaves the agent's service: systemd-run
// starts xdg-open as a unit of its own, in the user's name.
TEST(LaunchApp, ThroughTheServiceManagerOnlyWhereSystemdRunsAndSystemdRunIsThere) {
  test_support::TempDir dir;
  mkdir((dir / "marker").c_str(), 0755);
  const auto tools = [&](const std::string& folder, std::initializer_list<const char*> names) {
    mkdir((dir / folder).c_str(), 0755);
    for (const char* name : names) {
      test_support::spit(dir / (folder + "/" + name), "#!/bin/sh\n");
      chmod((dir / (folder + "/" + name)).c_str(), 0755);
    }
  };
  tools("bin", {"xdg-open", "systemd-run"});
  tools("openonly", {"xdg-open"});
  tools("runonly", {"systemd-run"});

  struct Case {
    const char* what;
    std::string marker, path;
    bool viaManager;
  };
  const Case cases[] = {
      {"systemd running, both tools", dir / "marker", dir / "bin", true},
      {"no systemd", dir / "no-marker", dir / "bin", false},
      {"no systemd-run", dir / "marker", dir / "openonly", false},
      {"no xdg-open: the direct path logs the failed exec", dir / "marker", dir / "runonly", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    LaunchSettings settings;
    settings.searchPath = c.path;
    settings.systemdMarker = c.marker;
    const auto p = launchProcess(" /srv/a file", "nobody", 65534, 65534, settings);
    ASSERT_TRUE(p.has_value());
    EXPECT_EQ(p->viaManager, c.viaManager);
    if (!c.viaManager) {
      EXPECT_EQ(p->argv, (std::vector<std::string>{"xdg-open", "/srv/a file"}));
      EXPECT_EQ(p->uid, 65534u);
      continue;
    }
    EXPECT_EQ(p->program, dir / "bin/systemd-run");
    const auto& a = p->argv;
    const auto has = [&](const std::string& w) { return std::find(a.begin(), a.end(), w) != a.end(); };
    EXPECT_TRUE(has("--uid=65534") && has("--gid=65534")) << "the unit's ids, not the child's";
    EXPECT_TRUE(has("--setenv=DISPLAY=:0") && has("--setenv=XDG_RUNTIME_DIR=/run/user/65534"));
    EXPECT_TRUE(has("--property=ExitType=cgroup")) << "the unit outlives xdg-open's exit";
    const auto dashes = std::find(a.begin(), a.end(), "--");
    ASSERT_NE(dashes, a.end());
    EXPECT_EQ(std::vector<std::string>(dashes + 1, a.end()),
              (std::vector<std::string>{dir / "bin/xdg-open", "/srv/a file"}));
    EXPECT_EQ(p->env, (std::vector<std::string>{"PATH=/usr/sbin:/usr/bin:/sbin:/bin"}));
    EXPECT_EQ(a[1].rfind("--unit=varlo-launch-" + std::to_string(getpid()) + "-", 0), 0u) << a[1];
    const auto again = launchProcess("/srv/b", "nobody", 65534, 65534, settings);
    EXPECT_NE(again->argv[1], a[1]) << "each launch is a unit of its own";
  }
  LaunchSettings settings;
  settings.searchPath = dir / "bin";
  settings.systemdMarker = dir / "marker";
  EXPECT_FALSE(launchProcess("/srv/a", "root", 0, 0, settings).has_value()) << "never as root";
}

// The manager's client runs as root (only the service manager may start a
// unit in another user's name); the user's ids travel as its arguments.
TEST(UserProcess, TheManagersClientKeepsRootTheDirectChildDoesNot) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to act in another user's name";
  test_support::TempDir dir;
  chmod(dir.path.c_str(), 0777);
  const std::string recorder = dir / "record.sh";
  test_support::spit(recorder, "#!/bin/sh\nid -u > \"$0.$(id -u)\"\necho \"$@\" >> \"$0.$(id -u)\"\n");
  chmod(recorder.c_str(), 0755);
  auto user = UserProcess::forUser("nobody", 65534, 65534, false);
  ASSERT_TRUE(user.has_value());
  user->program = recorder;
  user->argv = {"record.sh", "hello"};
  for (const UserProcess& p : {*user, user->throughManager(recorder, "varlo-launch-test")}) {
    int execError = -1;
    const pid_t pid = p.start(&execError);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(execError, 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_EQ(test_support::slurp(recorder + ".65534"), "65534\nhello\n");
  const auto asRoot = test_support::slurp(recorder + ".0");
  ASSERT_TRUE(asRoot.has_value());
  EXPECT_EQ(asRoot->substr(0, 2), "0\n");
  EXPECT_NE(asRoot->find("--uid=65534 --gid=65534"), std::string::npos) << *asRoot;
  EXPECT_NE(asRoot->find("-- " + recorder + " hello\n"), std::string::npos) << *asRoot;
}

// A pseudo-terminal in raw mode, so what the agent writes is read as it went.
struct Terminal {
  Terminal() : master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    char name[64] = "";
    if (grantpt(master) != 0 || unlockpt(master) != 0 || ptsname_r(master, name, sizeof name) != 0) return;
    line = std::string(name).substr(5);  // below /dev
    termios raw{};
    tcgetattr(master, &raw);
    cfmakeraw(&raw);
    tcsetattr(master, TCSANOW, &raw);
  }
  ~Terminal() { close(master); }
  std::string shown() {
    std::string out;
    char buf[512];
    pollfd p{master, POLLIN, 0};
    while (poll(&p, 1, 200) == 1) {
      const ssize_t n = read(master, buf, sizeof buf);
      if (n <= 0) break;
      out.append(buf, static_cast<std::size_t>(n));
    }
    return out;
  }
  int master;
  std::string line;
};

TEST_F(UserActionTest, SendMessageWithoutANotifierWritesOnlyToTheUsersOwnTerminals) {
  Terminal own, foreign;
  ASSERT_FALSE(own.line.empty());
  ASSERT_EQ(chown(("/dev/" + own.line).c_str(), 65534, 65534), 0);
  logIn("nobody", {"tty1", own.line, foreign.line, "../etc/passwd"});
  auto request = varlo::varlo_manage::reply(20, false, false);
  varlo::putPString<varlo::varlo_manage::Message>(request, "Disk nearly full");
  ASSERT_TRUE(console_.send(request));
  sendMessage(*session_, MessageSettings{dir_ / "no-bin", dir_ / "utmp", "/dev"});
  EXPECT_EQ(console_.receive(varlo::varlo_manage::kSize).size(), varlo::varlo_manage::kSize);
  EXPECT_EQ(own.shown(), "\r\nPathmere Notification\r\nDisk nearly full\r\n");
  EXPECT_EQ(foreign.shown(), "") << "a terminal that is not the user's";
}

}  // namespace
