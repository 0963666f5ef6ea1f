#include "prefs/login_records.h"

#include <utmpx.h>

#include <cstring>

#include "test_support.h"

using test_support::TempDir;

namespace {

// Appends a record the way login, sshd and init do, through the C library.
void append(const std::string& file, short type, const char* user, const char* line, long when) {
  utmpx ut{};
  ut.ut_type = type;
  std::strncpy(ut.ut_user, user, sizeof ut.ut_user);
  std::strncpy(ut.ut_line, line, sizeof ut.ut_line);
  ut.ut_tv.tv_sec = static_cast<decltype(ut.ut_tv.tv_sec)>(when);
  if (!std::filesystem::exists(file)) test_support::spit(file, "");  // the C library appends only
  updwtmpx(file.c_str(), &ut);
}

}  // namespace

TEST(LoginRecords, LastLoginIsTheNewestRealUserFirstAmongEquals) {
  TempDir t;
  const std::string wtmp = t / "wtmp";
  append(wtmp, BOOT_TIME, "reboot", "~", 50);
  append(wtmp, USER_PROCESS, "alice", "tty1", 100);
  append(wtmp, USER_PROCESS, "bob", "pts/0", 200);
  append(wtmp, USER_PROCESS, "carol", "pts/1", 200);
  append(wtmp, DEAD_PROCESS, "", "pts/1", 250);
  append(wtmp, RUN_LVL, "shutdown", "~~", 300);
  append(wtmp, LOGIN_PROCESS, "LOGIN", "tty2", 300);
  append(wtmp, USER_PROCESS, "rebooter", "tty3", 400);  // named like a pseudo-user: skipped
  EXPECT_EQ(LoginRecords::lastLogin(wtmp), "bob");
  // A full-width name (no terminator) must not run on; a torn last record is ignored.
  append(wtmp, USER_PROCESS, std::string(32, 'z').c_str(), "tty4", 500);
  test_support::spit(t / "torn", *test_support::slurp(wtmp) + "partial");
  EXPECT_EQ(LoginRecords::lastLogin(t / "torn"), std::string(32, 'z'));
  EXPECT_EQ(LoginRecords::lastLogin(t / "missing"), "");
}

TEST(LoginRecords, ConsoleUserIsTheNewestSessionOnAConsoleLine) {
  TempDir t;
  const std::string utmp = t / "utmp";
  EXPECT_FALSE(LoginRecords::consoleUserFromUtmp(utmp).has_value());
  append(utmp, USER_PROCESS, "remote", "pts/0", 900);  // ssh: not the console
  EXPECT_FALSE(LoginRecords::consoleUserFromUtmp(utmp).has_value());
  append(utmp, USER_PROCESS, "root", "tty2", 300);
  append(utmp, USER_PROCESS, "nosuchuser-varlo", ":0", 200);
  append(utmp, LOGIN_PROCESS, "LOGIN", "tty3", 800);
  auto user = LoginRecords::consoleUserFromUtmp(utmp);
  ASSERT_TRUE(user.has_value());
  EXPECT_EQ(user->name + std::to_string(user->uid) + std::to_string(user->gid), "root00");
  // Without logind's seats, utmp decides; a name without a password entry still counts.
  append(utmp, USER_PROCESS, "nosuchuser-varlo", ":1", 400);
  user = LoginRecords::findConsoleUser(t / "no-seats", utmp);
  ASSERT_TRUE(user.has_value());
  EXPECT_EQ(user->name + std::to_string(user->uid), "nosuchuser-varlo-1");

  for (const char* yes : {"tty1", "tty9", "tty63", ":0", ":12"})
    EXPECT_TRUE(LoginRecords::isConsoleLine(yes)) << yes;
  for (const char* no : {"tty0", "tty64", "tty01", "ttyS0", "tty", "pts/0", ":", ":0.0", "console1"})
    EXPECT_FALSE(LoginRecords::isConsoleLine(no)) << no;
}

TEST(LoginRecords, RecordsAlreadyReadGiveWhatTheFileGives) {
  TempDir t;
  const std::string wtmp = t / "wtmp";
  append(wtmp, USER_PROCESS, "alice", "tty1", 100);
  append(wtmp, USER_PROCESS, "bob", "pts/0", 200);
  append(wtmp, USER_PROCESS, "carol", ":0", 150);
  const std::string records = *test_support::slurp(wtmp);
  EXPECT_EQ(LoginRecords::lastLoginIn(records), "bob");
  EXPECT_EQ(LoginRecords::lastLoginIn(records + "torn"), "bob");
  EXPECT_EQ(LoginRecords::lastLoginIn(records.substr(0, sizeof(utmpx) - 1)), "");
  EXPECT_EQ(LoginRecords::consoleUserInRecords(records), std::optional<std::string>("carol"));
  EXPECT_EQ(LoginRecords::consoleUserInRecords(""), std::nullopt);
}
