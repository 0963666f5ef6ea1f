#include "core/vllog.h"

#include "test_support.h"

using test_support::slurp;
using test_support::TempDir;
namespace fs = std::filesystem;

TEST(VLLog, RotatesOnlyOnceTheTextExceedsTheLimitAndARestartKeepsTheCopy) {
  TempDir t;
  {
    VLLog log(t.path, t / "fallback");
    ASSERT_EQ(log.init(), 0);
    // Exactly at the limit (newlines do not count): no rotation yet.
    log.Log(std::string(VLLog::kDefaultMaxSize - (slurp(t / "Varlo.log")->size() - 1), 'a'));
    EXPECT_FALSE(fs::exists(t / "Varlo.log.1"));
    // One byte more: the line is written, then the file rotates.
    log.Log(std::string("b"));
    const std::string rotated = slurp(t / "Varlo.log.1").value_or("");
    EXPECT_EQ(rotated.size(), VLLog::kDefaultMaxSize + 1 + 3);
    EXPECT_TRUE(rotated.ends_with("a\nb\n"));
    EXPECT_EQ(slurp(t / "Varlo.log"), "");
    log.Log(std::string("after"));
    EXPECT_EQ(slurp(t / "Varlo.log"), "after\n");
  }
  VLLog again(t.path, t / "fallback");  // empties the current log
  ASSERT_EQ(again.init(), 0);
  EXPECT_EQ(fs::file_size(t / "Varlo.log.1"), VLLog::kDefaultMaxSize + 4);
  EXPECT_EQ(slurp(t / "Varlo.log")->find("after"), std::string::npos);
}

// The fallback only when the file cannot be opened; a missing folder is made, private.
TEST(VLLog, WhereTheLogGoes) {
  TempDir t;
  fs::create_directories(t / "taken/Varlo.log");
  fs::create_directories(t / "tmp");
  test_support::spit(t / "file", "");
  for (const auto& [dir, result, where] : {std::tuple{t / "file", -1, std::string()},
                                           {t / "new", 0, t / "new"}, {t / "taken", 0, t / "tmp"}}) {
    VLLog log(dir, t / "tmp");
    testing::internal::CaptureStderr();
    EXPECT_EQ(log.init(), result) << dir;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), result ? dir + "/ is not a directory!" : "");
    EXPECT_EQ(result == 0 ? log.directory() : std::string(), where);
    EXPECT_EQ(fs::exists(t / "tmp/Varlo.log"), where == t / "tmp") << dir;
  }
  EXPECT_EQ(fs::status(t / "new").permissions(), fs::perms::owner_all);
}

// The login listener is set up before the log opens: its lines come out
// once it has, right after the log's own first line.
TEST(VLLog, LinesBeforeTheLogOpensAreWrittenOnceItHas) {
  test_support::TempDir t;
  VLLog log(t.path, t / "fallback");
  log.LogMessage("Successfully set login notification handler.");
  ASSERT_EQ(log.init(), 0);
  log.LogMessage("Varlo Core Initializing");
  EXPECT_EQ(test_support::messagesOf(test_support::slurp(t / "Varlo.log").value_or("")),
            (std::vector<std::string>{"Log Opened Successfully",
                                      "Successfully set login notification handler.",
                                      "Varlo Core Initializing"}));
}
