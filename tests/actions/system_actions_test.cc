#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>

#include "actions/quit_process_handler.h"
#include "actions/shutdown_handler.h"
#include "actions/sync_clock_handler.h"
#include "console_end.h"
#include "prefs/prefs.h"
#include "session/session.h"
#include "test_support.h"
#include "varlo/action_records.h"

namespace {

using namespace std::chrono_literals;
using test_support::Bytes;

// A session on one end of a socket pair and the console on the other.
class ActionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PrefsSources sources;
    sources.localPrefsDir = prefsDir_.path;
    sources.folders.clear();
    prefs_ = std::make_unique<CPrefs>(sources);
    connect();
  }

  // A fresh connection for each case of a table.
  void connect() {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    session_ = std::make_unique<Session>(fds[0], 1, *prefs_);
    console_ = test_support::ConsoleEnd(fds[1]);
  }

  // The reply's prefix bytes and its Pascal text at offset.
  static std::pair<Bytes, std::string> parse(const Bytes& r, std::size_t textAt) {
    if (r.size() <= textAt) return {r, ""};
    return {test_support::prefixOf(r),
            std::string(reinterpret_cast<const char*>(r.data() + textAt + 1), r[textAt])};
  }

  test_support::TempDir prefsDir_;
  test_support::LogCapture log_;
  std::unique_ptr<CPrefs> prefs_;
  std::unique_ptr<Session> session_;
  test_support::ConsoleEnd console_;
};

TEST(SyncClock, TheZoneOffsetIsAddedWhateverItsSign) {
  const std::uint32_t epoch = varlo::varlo_clock_request::kEpochOffset;
  struct Case {
    long offset;
    std::int64_t utcOfLocal;  // the true UTC of the console's local time
    std::int64_t set;
  };
  // The console's local time is epoch + 10 hours in each zone.
  for (const Case& c : {Case{0, 36000, 36000},                   // GMT: right
                        Case{3600, 36000 - 3600, 36000 + 3600},  // GMT+1: two hours late
                        Case{-18000, 36000 + 18000, 36000 + 18000}}) {  // GMT-5: right
    EXPECT_EQ(clockTarget(epoch + 36000, c.offset), c.set) << c.offset;
    EXPECT_EQ(c.set - c.utcOfLocal, c.offset > 0 ? 2 * c.offset : 0) << c.offset;
  }
  EXPECT_EQ(clockTarget(epoch, 0), 0) << "1970-01-01 with a GMT zone";
}

TEST_F(ActionTest, SyncClockSetsTheClockOrSaysWhyNot) {
  struct Case {
    int error;
    std::string text;
  };
  for (const Case& c : {Case{0, ""}, Case{EINVAL, "The time parameter was invalid"},
                        Case{ENOSYS, "System does not support the settime function"},
                        Case{EPERM, "Root priviledges are needed to set the time"},
                        Case{EIO, "Could not set the time.  Error: 5"}}) {
    connect();
    varlo::varlo_clock_request::Bytes request{};
    varlo::put32<varlo::varlo_clock_request::Seconds>(request,
                                                      varlo::varlo_clock_request::kEpochOffset + 7);
    ASSERT_TRUE(console_.send(request));
    std::optional<timeval> set;
    syncClock(*session_, -3600, [&](const timeval& tv) { return set = tv, c.error; });
    ASSERT_TRUE(set.has_value());
    EXPECT_EQ(set->tv_sec, 7 + 3600);
    EXPECT_EQ(set->tv_usec, 0);
    const auto [prefix, text] = parse(console_.receive(varlo::varlo_manage::kSize), 68);
    EXPECT_EQ(prefix, (Bytes{0, 14, c.error == 0, 1, 0})) << c.error;
    EXPECT_EQ(text, c.text);
    if (c.error != 0) {
      EXPECT_TRUE(log_.contains(c.text));
    } else {
      EXPECT_EQ(log_.messages().end()[-3].rfind("Old Time: ", 0), 0u) << "then New Time:";
    }
  }
}

TEST_F(ActionTest, QuitProcessTermThenKillThenGivesUp) {
  struct Case {
    int diesAfter;  // signals sent before the process is gone; 3: never
    bool success;
  };
  for (const Case& c : {Case{1, true}, Case{2, true}, Case{3, false}}) {
    connect();
    std::vector<int> sent;
    int fatal = 0;
    killProcess(*session_, 4242, [&](pid_t pid, int sig) {
      EXPECT_EQ(pid, 4242);
      sent.push_back(sig);
      if (sig != 0) return ++fatal, 0;
      return fatal >= c.diesAfter ? ESRCH : 0;
    }, 20ms);
    const std::vector<int> expected =
        c.diesAfter == 1 ? std::vector<int>{SIGTERM, 0} : std::vector<int>{SIGTERM, 0, SIGKILL, 0};
    EXPECT_EQ(sent, expected);
    const auto [prefix, text] = parse(console_.receive(varlo::varlo_manage::kSize), 68);
    EXPECT_EQ(prefix, (Bytes{0, 0, c.success, 1, 0}));
    EXPECT_EQ(text, c.success ? "" : "Tried to kill process but it is still alive");
  }
}

TEST_F(ActionTest, QuitProcessRefusesPidsBelowOneWithoutASignal) {
  for (const std::uint32_t pid : {0u, 0xFFFFFFFFu}) {
    connect();
    killProcess(*session_, pid, [](pid_t, int) { return ADD_FAILURE(), 0; }, 1ms);
    const std::string want = "Received process ID " + std::to_string(static_cast<std::int32_t>(pid)) +
                             " killing this process could cause problems";
    const auto [prefix, text] = parse(console_.receive(varlo::varlo_manage::kSize), 68);
    EXPECT_EQ(prefix, (Bytes{0, 0, 0, 1, 0}));
    EXPECT_EQ(text, want);
    EXPECT_TRUE(log_.contains(want));
  }
}

TEST_F(ActionTest, ShutdownAnswersFirstThenRunsTheLine) {
  for (const bool reboot : {false, true}) {
    connect();
    std::string ran;
    shutdownSystem(*session_, reboot, 0, [&](const std::string& line) {
      // The console already has its answer when the line runs.
      pollfd p{console_.fd(), POLLIN, 0};
      EXPECT_EQ(poll(&p, 1, 0), 1);
      ran = line;
      return 1;
    });
    EXPECT_EQ(ran, reboot ? "/sbin/shutdown -r now &> /tmp/vlshutdown.log &"
                          : "/sbin/shutdown -h now &> /tmp/vlshutdown.log &");
    const Bytes reply = console_.receive(varlo::varlo_shutdown::kSize);
    Bytes expected(varlo::varlo_shutdown::kSize, 0);
    expected[2] = expected[3] = 1;  // success, last; command 0, no text
    EXPECT_EQ(reply, expected);
    EXPECT_TRUE(log_.contains("Failed to shutdown system.  Error: 1"));
  }
  connect();
  shutdownSystem(*session_, true, 1000, [](const std::string&) { return ADD_FAILURE(), 0; });
  const auto [prefix, text] = parse(console_.receive(varlo::varlo_shutdown::kSize), 12);
  EXPECT_EQ(prefix, (Bytes{0, 0, 0, 1, 0}));
  EXPECT_EQ(text, "Varlo needs root privileges to shutdown system");
}

}  // namespace
