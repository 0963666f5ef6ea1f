// The applications answer when the console or a stop cuts it short, and the
// numbered list beside it.
#include "software/apps_handler.h"

#include <chrono>
#include <filesystem>
#include <thread>

#include "software/app_fixtures.h"
#include "software/apps.h"
#include "test_support.h"

using app_fixtures::FakeRpm;
using std::to_string;
using test_support::BlockRecorder;
using test_support::slurp;
using test_support::spit;
using namespace std::chrono_literals;

namespace {

// "1 /usr/bin/app1\n" up to n: the list file's lines, and paths in rpm's listing.
std::string listLines(int n) {
  return n == 0 ? "" : listLines(n - 1) + to_string(n) + " /usr/bin/app" + to_string(n) + '\n';
}

// rpm lists /usr/bin/app1 ... /usr/bin/appN, in that order.
FakeRpm numbered(int n) {
  std::vector<std::string> exes;
  for (int i = 1; i <= n; ++i) exes.push_back("/usr/bin/app" + to_string(i));
  return FakeRpm("App: pkg 1\n" + listLines(n), exes);
}

TEST(AppsAnswer, ACutShortAnswerHasNoClosingHeaderButKeepsItsListLines) {
  // Eleven apps go out as blocks 0 header, 1 entries, pause, 2 closing
  // header, 3 the last entry.
  const struct {
    std::size_t refuseAt;
    int pausesAllowed;
    std::size_t blocks, lines;
  } cases[] = {{0, 1, 0, 10}, {1, 1, 1, 10}, {2, 1, 2, 11}, {3, 1, 3, 11}, {SIZE_MAX, 0, 2, 10}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.refuseAt);
    const FakeRpm rpm = numbered(11);
    CApps apps({}, rpm.sources());
    BlockRecorder rec;
    rec.refuseAt = c.refuseAt;
    int pauses = 0;
    const auto pause = [&] { return ++pauses <= c.pausesAllowed; };
    EXPECT_EQ(sendAppList(apps, rec.sink(), pause, rpm.dir / "applist"), -1);
    EXPECT_EQ(rec.blocks.size(), c.blocks);
    EXPECT_EQ(pauses, c.refuseAt >= 2 ? 1 : 0);
    EXPECT_EQ(slurp(rpm.dir / "applist"), listLines(c.lines));
  }
}

TEST(AppsAnswer, ALinkPlantedAtTheListPathIsNotFollowed) {
  const FakeRpm rpm = numbered(3);
  spit(rpm.dir / "precious", "keep me");
  std::filesystem::create_symlink(rpm.dir / "precious", rpm.dir / "applist");
  CApps apps({}, rpm.sources());
  BlockRecorder rec;
  EXPECT_EQ(sendAppList(apps, rec.sink(), [] { return true; }, rpm.dir / "applist"), 0);
  EXPECT_EQ(rec.blocks.size(), 2u);  // the answer goes out all the same
  EXPECT_EQ(slurp(rpm.dir / "precious"), "keep me");
}

TEST(AppsAnswer, AStopWakesTheConsumerWhileRpmHangs) {
  FakeRpm rpm("App: a 1\n/usr/bin/a\n", {"/usr/bin/a"}, "exec sleep 30\n");
  std::stop_source stop;
  BlockRecorder rec;
  const auto begin = std::chrono::steady_clock::now();
  int result = 0;
  {
    CApps apps(stop.get_token(), rpm.sources());
    std::jthread stopper([&] {
      std::this_thread::sleep_for(200ms);
      stop.request_stop();
    });
    result = sendAppList(apps, rec.sink(), [] { return true; }, rpm.dir / "applist");
  }  // joins the producer, which must not wait for rpm
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(rec.blocks.empty());
  EXPECT_EQ(slurp(rpm.dir / "applist"), "1 /usr/bin/a\n");
}

}  // namespace
