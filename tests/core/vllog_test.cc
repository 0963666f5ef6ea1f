#include "core/vllog.h"

#include <sys/stat.h>

#include <regex>

#include "test_support.h"

using test_support::slurp;
using test_support::TempDir;

TEST(VLLog, LinesAreStampedAndOnDiskAtOnce) {
  TempDir t;
  VLLog log(t.path, t / "fallback");
  ASSERT_EQ(log.init(), 0);
  log.LogMessage("Varlo Core Initializing");
  std::stringstream s;
  s << "Worker Thread: " << 7 << " starting";
  log.LogMessage(s);
  EXPECT_EQ(s.str(), "Worker Thread: 7 starting");  // the stream is left as it was

  // Read while the log is still open: every line must already be flushed.
  const std::string text = *slurp(t / "Varlo.log");
  const std::string stamp = "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}";
  EXPECT_TRUE(std::regex_match(text, std::regex(stamp + ":   Log Opened Successfully\n" + stamp +
                                                ":   Varlo Core Initializing\n" + stamp +
                                                ":   Worker Thread: 7 starting\n")))
      << text;
}

TEST(VLLog, RotatesOnlyOnceTheTextExceedsTheLimit) {
  TempDir t;
  {
    VLLog log(t.path, t / "fallback");
    ASSERT_EQ(log.init(), 0);
    const std::string opened = *slurp(t / "Varlo.log");
    // Exactly at the limit (newlines do not count): no rotation yet.
    log.Log(std::string(VLLog::kDefaultMaxSize - (opened.size() - 1), 'a'));
    EXPECT_FALSE(std::filesystem::exists(t / "Varlo.log.1"));
    // One byte more: the line is written, then the file rotates.
    log.Log(std::string("b"));
    ASSERT_TRUE(std::filesystem::exists(t / "Varlo.log.1"));
    const std::string rotated = *slurp(t / "Varlo.log.1");
    EXPECT_EQ(rotated.size(), VLLog::kDefaultMaxSize + 1 + 3);
    EXPECT_EQ(rotated.substr(rotated.size() - 2), "b\n");
    EXPECT_EQ(slurp(t / "Varlo.log"), "");
    log.Log(std::string("after"));
    EXPECT_EQ(slurp(t / "Varlo.log"), "after\n");
  }
  // A restart empties the current log and keeps the old copy.
  VLLog again(t.path, t / "fallback");
  ASSERT_EQ(again.init(), 0);
  EXPECT_EQ(std::filesystem::file_size(t / "Varlo.log.1"), VLLog::kDefaultMaxSize + 4);
  EXPECT_EQ(slurp(t / "Varlo.log")->find("after"), std::string::npos);
}

TEST(VLLog, FallsBackOnlyWhenTheFileCannotBeOpened) {
  TempDir t;
  std::filesystem::create_directories(t / "log/Varlo.log");  // the file's name is taken
  std::filesystem::create_directories(t / "tmp");
  {
    VLLog log(t / "log", t / "tmp");
    ASSERT_EQ(log.init(), 0);
    EXPECT_EQ(log.directory(), t / "tmp");
  }
  EXPECT_NE(slurp(t / "tmp/Varlo.log")->find("Closing Log"), std::string::npos);

  // A plain file where the directory should be is an error, not a fallback.
  test_support::spit(t / "notadir", "");
  VLLog broken(t / "notadir", t / "tmp2");
  testing::internal::CaptureStderr();
  EXPECT_EQ(broken.init(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), t / "notadir" + "/ is not a directory!");
  EXPECT_FALSE(std::filesystem::exists(t / "tmp2/Varlo.log"));
  broken.LogMessage("dropped without a word");
}

TEST(VLLog, CreatesAMissingDirectoryPrivately) {
  TempDir t;
  VLLog log(t / "new", t / "fallback");
  ASSERT_EQ(log.init(), 0);
  struct stat st{};
  ASSERT_EQ(stat((t / "new").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  VLLog orphan(t / "no/such/parent", t / "fallback");
  testing::internal::CaptureStderr();
  EXPECT_EQ(orphan.init(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Unable to create directory " + t / "no/such/parent" + "/ Error: 2");
}
