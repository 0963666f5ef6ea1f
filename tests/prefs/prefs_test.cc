#include "prefs/prefs.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_support.h"

using test_support::slurp;
using test_support::TempDir;
namespace fs = std::filesystem;

namespace {

// Preferences under a temp folder, with no console and no log-in records.
PrefsSources sourcesIn(const TempDir& t) {
  PrefsSources s;
  s.localPrefsDir = t / "lib";
  s.prefsFallbackDir = t / "vartmp/";
  s.wtmp = s.utmp = s.logindSeats = t / "none";
  s.folders.clear();
  fs::create_directories(t / "lib");
  return s;
}

std::unique_ptr<CPrefs> started(const PrefsSources& s) {
  auto p = std::make_unique<CPrefs>(s);
  p->init();
  return p;
}

}  // namespace

// The enciphered password as text, every byte value there and back.
TEST(CPrefs, PasswordTextEncoding) {
  const std::uint8_t cipher[8] = {0x8A, 0x00, 0x7F, 0xFF, 0x80, 0x0F, 0x12, 0xF0};
  EXPECT_EQ(CPrefs::convert2Binary(cipher), "(:007?/?(00?12/0");
  for (int b = 0; b < 256; ++b) {
    const std::uint8_t one[8] = {static_cast<std::uint8_t>(b)};
    std::uint8_t back[8];
    EXPECT_TRUE(CPrefs::convertFromBinary(CPrefs::convert2Binary(one), back) && back[0] == b) << b;
  }
}

TEST(CPrefs, PasswordSurvivesARestartEightCharactersOfIt) {
  TempDir t;
  const PrefsSources s = sourcesIn(t);
  auto p = started(s);
  EXPECT_EQ(p->validatePassword(""), 1);  // no password yet: only the empty one
  EXPECT_EQ(p->validatePassword("x"), 0);
  ASSERT_EQ(p->changePassword("secret"), 0);
  EXPECT_EQ(slurp(t / "lib/VarloPrefs/.varlo"), "ebp= /:5;5<196954/431\n");  // known answer
  p = started(s);
  EXPECT_EQ(p->validatePassword("secret"), 1);
  EXPECT_EQ(p->validatePassword("secre"), 0);
  EXPECT_EQ(p->validatePassword(""), 0);
  // Longer than a block: whole until a restart, then its first eight characters.
  ASSERT_EQ(p->changePassword("abcdefghij"), 0);
  EXPECT_EQ(p->validatePassword("abcdefghij"), 1);
  EXPECT_EQ(p->validatePassword("abcdefgh"), 0);
  p = started(s);
  EXPECT_EQ(p->validatePassword("abcdefgh"), 1);
  EXPECT_EQ(p->validatePassword("abcdefghij"), 0);
}

// As written here, or edited on another system with "\r\n" line ends.
TEST(CPrefs, FileIsReadFirstKeyWinsAndUnknownKeysKept) {
  for (const std::string eol : {"\n", "\r\n"}) {
    TempDir t;
    const PrefsSources s = sourcesIn(t);
    fs::create_directories(t / "lib/VarloPrefs");
    const std::string file = t / "lib/VarloPrefs/.varlo";
    test_support::spit(file, "dbkey= 7" + eol + "dbkey= 8" + eol + "zz-future= keep me" + eol +
                                 "Note1 " + std::string(400, 'n') + eol +  // past the reader's limit
                                 "ebp= /:5;5<196954/431" + eol + "launchblock= 1" + eol);
    auto p = started(s);
    EXPECT_EQ(p->dbmsKey(), 7u);
    EXPECT_TRUE(p->launchBlocked());  // read past the overlong line
    EXPECT_EQ(p->validatePassword("secret"), 1);
    std::string note;
    ASSERT_EQ(p->retrieveNote(note, 1), 0);
    EXPECT_EQ(note, std::string(CPrefs::kLineLimit - 2, 'n'));
    ASSERT_EQ(p->setDBMSKey(4294967295ul), 0);
    EXPECT_EQ(slurp(file), "Note1 " + note + "\ndbkey= 4294967295\nebp= /:5;5<196954/431\n" +
                               "launchblock= 1\nzz-future= keep me\n");
    EXPECT_EQ(started(s)->dbmsKey(), 4294967295u);
  }
}

TEST(CPrefs, FolderAndFileArePrivateInTheLocalFolderOrTheFallback) {
  for (const bool local : {true, false}) {
    TempDir t;
    PrefsSources s = sourcesIn(t);
    if (!local) s.localPrefsDir = t / "missing";
    const std::string folder = t / (local ? "lib/VarloPrefs" : "vartmp/VarloPrefs");
    fs::create_directories(folder);
    chmod(folder.c_str(), 0755);  // left open by someone else
    ASSERT_EQ(started(s)->setDBMSKey(1), 0);
    EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(folder + "/.varlo").permissions(),
              fs::perms::owner_read | fs::perms::owner_write);
  }
}

// A write stopped half-way (by the file-size limit, as by a crash) leaves the old file whole.
TEST(CPrefs, AnInterruptedWriteLeavesTheOldFileWhole) {
  TempDir t;
  const PrefsSources s = sourcesIn(t);
  ASSERT_EQ(started(s)->setDBMSKey(99), 0);
  const std::string file = t / "lib/VarloPrefs/.varlo";
  const auto before = slurp(file);
  for (bool crash : {true, false}) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      signal(SIGXFSZ, crash ? SIG_DFL : SIG_IGN);
      auto p = started(s);
      const rlimit small{4096, 4096};
      setrlimit(RLIMIT_FSIZE, &small);
      p->storeNotes(std::string(100000, 'x').c_str(), 1, true);
      _exit(p->setDBMSKey(100) == -1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(crash ? WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ
                      : WIFEXITED(status) && WEXITSTATUS(status) == 0) << crash << " " << status;
    EXPECT_EQ(slurp(file), before);
    EXPECT_EQ(started(s)->dbmsKey(), 99u);
  }
  // The failed write cleaned up after itself; the crashed one could not.
  const auto entries = fs::directory_iterator(t / "lib/VarloPrefs");
  EXPECT_EQ(std::distance(fs::begin(entries), fs::end(entries)), 2);
}

TEST(CPrefs, NotesKeepTheirTextAndCannotForgeLines) {
  TempDir t;
  const PrefsSources s = sourcesIn(t);
  auto p = started(s);
  EXPECT_EQ(p->storeNotes(nullptr, 1, false), -1);
  ASSERT_EQ(p->storeNotes("first note", 3, false), 0);
  ASSERT_EQ(p->storeNotes("", 3, false), 0);  // empty keeps the old text
  ASSERT_EQ(p->storeNotes("deferred", 4, true), 0);
  ASSERT_EQ(p->storeNotes("two\nebp= 0000000000000000\r\ndbkey= 13", 5, false), 0);
  p = started(s);
  // The deferred one was written by the next store.
  for (const auto& [index, want] : {std::pair{3, "first note"}, {4, "deferred"},
                                    {5, "two ebp= 0000000000000000  dbkey= 13"}}) {
    std::string text;
    ASSERT_EQ(p->retrieveNote(text, index), 0) << index;
    EXPECT_EQ(text, want);
  }
  EXPECT_EQ(p->validatePassword(""), 1);
  EXPECT_EQ(p->dbmsKey(), 0u);
}
