// Launch App's refusals and Send Message's terminals, for a real
// unprivileged user ("nobody"); what they start is recorded by stand-ins.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <utmpx.h>

#include <cstring>

#include "actions/launch_app_handler.h"
#include "actions/send_message_handler.h"
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
