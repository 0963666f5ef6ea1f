#include "software/dir_iterator_linux.h"

#include "base/dir_handle.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "test_support.h"
#include "base/util.h"

namespace fs = std::filesystem;

namespace {

using Paths = std::vector<std::string>;

// root/{a.txt, b.bin, sub1/inner.txt, sub2/, link_to_dir -> sub1, dangling -> nowhere}
class DirTree : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    std::ofstream(root + "/a.txt") << "a";
    std::ofstream(root + "/b.bin") << "b";
    fs::create_directories(root + "/sub1");
    fs::create_directories(root + "/sub2");
    std::ofstream(root + "/sub1/inner.txt") << "i";
    fs::create_directory_symlink(root + "/sub1", root + "/link_to_dir");
    fs::create_symlink(root + "/nowhere", root + "/dangling");
  }
  void TearDown() override { std::error_code ec; fs::remove_all(root, ec); }

  static Paths files(CDirIterator& it) {
    Paths out;
    for (std::string f; it.getNextFile(f);) out.push_back(f);
    return out;
  }
  static Paths dirs(CDirIterator& it) {
    Paths out;
    for (std::string d; it.getNextDirectory(d);) out.push_back(d);
    return out;
  }

  std::string root = ::testing::TempDir() + "varlo_dir_XXXXXX";
};

// Counts destructions, to see what closeDirectory frees.
struct CountingIterator : CDirIteratorLinux {
  explicit CountingIterator(int& n) : destroyed(n) {}
  ~CountingIterator() override { ++destroyed; }
  int& destroyed;
};

}  // namespace

TEST_F(DirTree, SplitsEntriesInReaddirOrderLinksAsFiles) {
  Paths wantFiles, wantDirs;
  DirHandle dir(Util::openDir(root));
  for (std::string n; Util::getNextFile(dir.get(), n) == 0;)
    if (n != "." && n != "..") (n.rfind("sub", 0) == 0 ? wantDirs : wantFiles).push_back(root + "/" + n);
  CDirIteratorLinux it;
  ASSERT_TRUE(it.openDirectory(root));
  EXPECT_EQ(files(it), wantFiles);
  EXPECT_EQ(dirs(it), wantDirs);

  CDirIteratorLinux slash;  // a trailing slash is not doubled
  ASSERT_TRUE(slash.openDirectory(root + "/sub1/"));
  EXPECT_EQ(files(slash), Paths{root + "/sub1/inner.txt"});
}

TEST_F(DirTree, OpenRefusesNonDirectoriesAndAppendsOnReopen) {
  CDirIteratorLinux it;
  EXPECT_FALSE(it.openDirectory(root + "/a.txt"));
  EXPECT_FALSE(it.openDirectory(root + "/dangling"));
  std::string out = "keep";
  EXPECT_FALSE(it.getNextFile(out));
  EXPECT_FALSE(it.getNextDirectory(out));
  EXPECT_EQ(out, "keep");

  ASSERT_TRUE(it.openDirectory(root));
  Paths want = files(it);
  ASSERT_TRUE(it.openDirectory(root + "/sub1"));
  want.push_back(root + "/sub1/inner.txt");
  EXPECT_EQ(files(it), want);
}

TEST_F(DirTree, CursorsPeekAdvanceAndStopAtEnd) {
  CDirIteratorLinux it;
  ASSERT_TRUE(it.openDirectory(root));
  std::string first, again, second;
  ASSERT_TRUE(it.getCurrentDirectory(first));
  ASSERT_TRUE(it.getNextDirectory(again));
  EXPECT_EQ(first, again);
  ASSERT_TRUE(it.getNextDirectory(second));
  EXPECT_NE(first, second);
  EXPECT_FALSE(it.getNextDirectory(second));
  EXPECT_FALSE(it.getCurrentDirectory(second));
  EXPECT_EQ(second.rfind(root + "/sub", 0), 0u);  // untouched past the end
  it.addDir("/extra");  // entries added after an open are handed out in turn
  EXPECT_TRUE(it.getNextDirectory(second));
  EXPECT_EQ(second, "/extra");
}

TEST_F(DirTree, RecurseOpensTheDirectoryUnderTheCursor) {
  CDirIteratorLinux it;
  ASSERT_TRUE(it.openDirectory(root));
  std::string dir;
  while (it.getCurrentDirectory(dir) && dir != root + "/sub1") it.getNextDirectory(dir);
  auto sub = it.recurseIntoDirectory();
  ASSERT_NE(sub, nullptr);
  EXPECT_EQ(files(*sub), Paths{root + "/sub1/inner.txt"});
  ASSERT_TRUE(it.getCurrentDirectory(dir));
  EXPECT_EQ(dir, root + "/sub1");
  dirs(it);
  EXPECT_EQ(it.recurseIntoDirectory(), nullptr);
  auto missing = it.recurseIntoDirectory(root + "/none");  // failed open: empty, not null
  ASSERT_NE(missing, nullptr);
  EXPECT_TRUE(files(*missing).empty());
}

TEST(DirIteratorClose, DestroysOthersOnly) {
  int destroyed = 0;
  {
    auto owner = std::make_unique<CountingIterator>(destroyed);
    owner->closeDirectory(std::make_unique<CountingIterator>(destroyed));
    EXPECT_EQ(destroyed, 1);
    owner->closeDirectory(nullptr);
    owner->closeDirectory(std::unique_ptr<CDirIterator>(owner.get()));
    EXPECT_EQ(destroyed, 1);
  }
  EXPECT_EQ(destroyed, 2);
}

TEST_F(DirTree, UsersRootDirOpensHomesOrLogs) {
  fs::create_directories(root + "/home/alice");
  test_support::LogCapture log;
  CDirIteratorLinux homes, none;
  EXPECT_EQ(getUsersRootDir(homes, root + "/home"), 1);
  EXPECT_EQ(dirs(homes), Paths{root + "/home/alice"});
  EXPECT_EQ(getUsersRootDir(none, root + "/nohome"), 0);
  EXPECT_TRUE(log.contains("Failed to open user directory."));
}
