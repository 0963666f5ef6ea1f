#include "prefs/prefs.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utmpx.h>

#include <cstring>
#include <filesystem>

#include "test_support.h"

using test_support::slurp;
using test_support::spit;
using test_support::TempDir;
namespace fs = std::filesystem;

namespace {

// Preferences under a temp folder, with no console and no log-in records.
PrefsSources sourcesIn(const TempDir& t) {
  PrefsSources s;
  s.localPrefsDir = t / "lib";
  s.prefsFallbackDir = t / "vartmp/";
  s.wtmp = t / "wtmp";
  s.utmp = t / "utmp";
  s.logindSeats = t / "seats";
  s.selfExe = t / "exe";
  s.folders.clear();
  fs::create_directories(t / "lib");
  return s;
}

std::uint32_t keyAfterRestart(const PrefsSources& s) {
  CPrefs p(s);
  p.init();
  return p.dbmsKey();
}

}  // namespace

TEST(CPrefs, PasswordTextEncoding) {
  const std::uint8_t cipher[8] = {0x8A, 0x00, 0x7F, 0xFF, 0x80, 0x0F, 0x12, 0xF0};
  EXPECT_EQ(CPrefs::convert2Binary(cipher), "(:007?/?(00?12/0");
  for (int b = 0; b < 256; ++b) {
    const std::uint8_t one[8] = {static_cast<std::uint8_t>(b)};
    std::uint8_t back[8];
    EXPECT_TRUE(CPrefs::convertFromBinary(CPrefs::convert2Binary(one), back));
    EXPECT_EQ(back[0], b);
  }
}

TEST(CPrefs, PasswordSurvivesARestartEightCharactersOfIt) {
  TempDir t;
  const PrefsSources s = sourcesIn(t);
  {
    CPrefs fresh(s);
    fresh.init();
    EXPECT_EQ(fresh.validatePassword(""), 1);  // no password yet: only the empty one
    EXPECT_EQ(fresh.validatePassword("x"), 0);
    EXPECT_EQ(fresh.dbmsKey(), 0u);
    ASSERT_EQ(fresh.changePassword("secret"), 0);
  }
  // Known answer, computed outside this project.
  EXPECT_EQ(slurp(t / "lib/VarloPrefs/.varlo"), "ebp= /:5;5<196954/431\n");
  {
    CPrefs restarted(s);
    restarted.init();
    EXPECT_EQ(restarted.validatePassword("secret"), 1);
    EXPECT_EQ(restarted.validatePassword("secre"), 0);
    EXPECT_EQ(restarted.validatePassword(""), 0);
    // Longer than a block: whole until the next restart...
    ASSERT_EQ(restarted.changePassword("abcdefghij"), 0);
    EXPECT_EQ(restarted.validatePassword("abcdefghij"), 1);
    EXPECT_EQ(restarted.validatePassword("abcdefgh"), 0);
  }
  CPrefs again(s);
  again.init();
  // ...then its first eight characters, though the block holds no zero byte.
  EXPECT_EQ(again.validatePassword("abcdefgh"), 1);
  EXPECT_EQ(again.validatePassword("abcdefghij"), 0);
}

TEST(CPrefs, FileIsReadFirstKeyWinsAndUnknownKeysKept) {
  TempDir t;
  const PrefsSources s = sourcesIn(t);
  fs::create_directories(t / "lib/VarloPrefs");
  const std::string file = t / "lib/VarloPrefs/.varlo";
  spit(file,
       "dbkey= 7\n"
       "dbkey= 8\n"
       "zz-future= keep me\n"
       "Note1 " + std::string(400, 'n') + "\n"  // longer than the reader's limit
       "launchblock= 1\n");
  CPrefs p(s);
  p.init();
  EXPECT_EQ(p.dbmsKey(), 7u);
  EXPECT_TRUE(p.launchBlocked());  // read past the overlong line
  std::string note;
  ASSERT_EQ(p.retrieveNote(note, 1), 0);
  EXPECT_EQ(note, std::string(CPrefs::kLineLimit - 2, 'n'));

  ASSERT_EQ(p.setDBMSKey(4294967295ul), 0);
  EXPECT_EQ(slurp(file), "Note1 " + note + "\n" +
                             "dbkey= 4294967295\n"
                             "launchblock= 1\n"
                             "zz-future= keep me\n");
  EXPECT_EQ(keyAfterRestart(s), 4294967295u);
}

TEST(CPrefs, FolderAndFileArePrivate) {
  TempDir t;
  const PrefsSources s = sourcesIn(t);
  fs::create_directories(t / "lib/VarloPrefs");
  chmod((t / "lib/VarloPrefs").c_str(), 0755);  // left open by someone else
  CPrefs p(s);
  p.init();
  ASSERT_EQ(p.setDBMSKey(1), 0);
  struct stat st{};
  ASSERT_EQ(stat((t / "lib/VarloPrefs").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  ASSERT_EQ(stat(p.prefsFile().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST(CPrefs, FallsBackWhenTheLocalFolderIsMissing) {
  TempDir t;
  PrefsSources s = sourcesIn(t);
  s.localPrefsDir = t / "missing";
  fs::create_directories(t / "vartmp");
  CPrefs p(s);
  p.init();
  EXPECT_EQ(p.prefsPath(), t / "vartmp//VarloPrefs");
  ASSERT_EQ(p.setDBMSKey(5), 0);
  EXPECT_TRUE(fs::exists(t / "vartmp/VarloPrefs/.varlo"));
}

// A write that dies half-way (the file-size limit kills the writer, as a
// crash or a full disk would stop it) leaves the old file whole.
TEST(CPrefs, AnInterruptedWriteLeavesTheOldFileWhole) {
  TempDir t;
  const PrefsSources s = sourcesIn(t);
  {
    CPrefs p(s);
    p.init();
    ASSERT_EQ(p.setDBMSKey(99), 0);
  }
  const std::string file = t / "lib/VarloPrefs/.varlo";
  const auto before = slurp(file);

  for (bool crash : {true, false}) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      signal(SIGXFSZ, crash ? SIG_DFL : SIG_IGN);
      CPrefs p(s);
      p.init();
      const rlimit small{4096, 4096};
      setrlimit(RLIMIT_FSIZE, &small);
      p.storeNotes(std::string(100000, 'x').c_str(), 1, true);
      const int result = p.setDBMSKey(100);
      _exit(result == -1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (crash) {
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
    } else {
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "write failure not reported";
    }
    EXPECT_EQ(slurp(file), before);
    EXPECT_EQ(keyAfterRestart(s), 99u);
  }
  // The failed write cleaned up after itself; the crashed one could not.
  int leftovers = 0;
  for (const auto& entry : fs::directory_iterator(t / "lib/VarloPrefs"))
    leftovers += entry.path().filename() != ".varlo";
  EXPECT_EQ(leftovers, 1);
}

TEST(CPrefs, NotesKeepTheirTextAndCannotForgeLines) {
  TempDir t;
  const PrefsSources s = sourcesIn(t);
  {
    CPrefs p(s);
    p.init();
    EXPECT_EQ(p.storeNotes(nullptr, 1, false), -1);
    ASSERT_EQ(p.storeNotes("first note", 3, false), 0);
    ASSERT_EQ(p.storeNotes("", 3, false), 0);  // empty keeps the old text
    std::string text;
    ASSERT_EQ(p.retrieveNote(text, 3), 0);
    EXPECT_EQ(text, "first note");
    EXPECT_EQ(p.retrieveNote(text, 4), -1);
    ASSERT_EQ(p.storeNotes("deferred", 4, true), 0);
    ASSERT_EQ(p.storeNotes("two\nebp= 0000000000000000\ndbkey= 13", 5, false), 0);
  }
  CPrefs restarted(s);
  restarted.init();
  std::string text;
  ASSERT_EQ(restarted.retrieveNote(text, 3), 0);
  EXPECT_EQ(text, "first note");
  // Written by the later store, though its own write was deferred.
  ASSERT_EQ(restarted.retrieveNote(text, 4), 0);
  EXPECT_EQ(text, "deferred");
  ASSERT_EQ(restarted.retrieveNote(text, 5), 0);
  EXPECT_EQ(text, "two ebp= 0000000000000000 dbkey= 13");
  EXPECT_EQ(restarted.validatePassword(""), 1);
  EXPECT_EQ(restarted.dbmsKey(), 0u);
}

TEST(CPrefs, LocationMap) {
  TempDir t;
  PrefsSources s = sourcesIn(t);
  fs::create_directories(t / "fonts");
  fs::create_directories(t / "bin");
  s.folders[fourCC("font")] = t / "fonts";      // exists: resolved, with a trailing slash
  s.folders[fourCC("strt")] = t / "no-init.d/";  // missing: falls back to /tmp/
  fs::create_symlink(t / "bin/varlo", t / "exe");
  CPrefs p(s);
  p.init();

  std::string path;
  EXPECT_EQ(p.getFolderLocation(fourCC("font"), path), 0);
  EXPECT_EQ(path, t / "fonts/");
  EXPECT_EQ(p.getFolderLocation(fourCC("strt"), path), 0);
  EXPECT_EQ(path, "/tmp/");
  EXPECT_EQ(p.getFolderLocation(fourCC("amnu"), path), 0);
  EXPECT_EQ(path, "/tmp/");
  // The agent's own folder has no row of its own.
  EXPECT_EQ(p.getFolderLocation(CPrefs::kAppFolderId, path), 0);
  EXPECT_EQ(path, t / "bin/");

  try {
    p.getFolderLocation(fourCC("zzzz"), path);
    ADD_FAILURE() << "an unknown id must throw";
  } catch (const std::string& message) {
    EXPECT_EQ(message, "Could not find folder with ID " + std::to_string(fourCC("zzzz")));
  }

  p.setLocationFile(t / "locations");
  p.createLocationFile();
  const auto text = slurp(t / "locations");
  ASSERT_TRUE(text.has_value());
  // In id order: 'XXXX' sorts before the lower-case ids.
  EXPECT_EQ(text->substr(0, text->find('\n')), "StartupVolume\t/tmp/");
  EXPECT_NE(text->find("Fonts\t" + t / "fonts/" + "\n"), std::string::npos);
  EXPECT_EQ(std::count(text->begin(), text->end(), '\n'), 10);
}

TEST(CPrefs, AppPathFallsBackWhenTheExecutableIsUnknown) {
  TempDir t;
  CPrefs p(sourcesIn(t));  // the exe link does not exist
  p.setAppPath();
  EXPECT_EQ(p.appPath(), "/Applications/");
}

TEST(CPrefs, ConsoleUserOrElseTheLastLogin) {
  TempDir t;
  const PrefsSources s = sourcesIn(t);
  CPrefs p(s);
  EXPECT_EQ(p.checkForUser(), 0);
  EXPECT_EQ(p.uid(), -1);
  spit(s.wtmp, "");
  utmpx ut{};
  ut.ut_type = USER_PROCESS;
  std::strcpy(ut.ut_user, "alice");
  std::strcpy(ut.ut_line, "pts/3");
  ut.ut_tv.tv_sec = 1000;
  updwtmpx(s.wtmp.c_str(), &ut);
  p.init();
  EXPECT_EQ(p.userName(), "alice");  // nobody at the console: the last one in

  spit(s.utmp, "");
  std::strcpy(ut.ut_user, "root");
  std::strcpy(ut.ut_line, "tty1");
  updwtmpx(s.utmp.c_str(), &ut);
  EXPECT_EQ(p.checkForUser(), 1);
  EXPECT_EQ(p.userName(), "root");
  EXPECT_EQ(p.uid(), 0);
  EXPECT_EQ(p.gid(), 0);
}
