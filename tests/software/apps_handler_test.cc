// The applications answer byte by byte, and the numbered list beside it.
#include "software/apps_handler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include "software/app_fixtures.h"
#include "software/apps.h"
#include "test_support.h"
#include "varlo/software_records.h"

using app_fixtures::FakeRpm;
using app_fixtures::putFile;
using test_support::BlockRecorder;
using test_support::listHeader;
using test_support::LogCapture;
using test_support::slurp;
using test_support::spit;
using test_support::TempDir;
using Bytes = std::vector<std::uint8_t>;
using namespace std::chrono_literals;

namespace {

struct App {
  std::string path, version;
};

// rpm lists the apps in this order, each one "/usr/bin/NAME" of its own
// version (rpm's listing keeps its order, a folder's does not).
struct Host {
  std::unique_ptr<FakeRpm> rpm;
  explicit Host(const std::vector<App>& apps) {
    std::string listing;
    std::vector<std::string> exes;
    for (const App& a : apps) {
      listing += "App: pkg " + a.version + "\n" + a.path + "\n";
      exes.push_back(a.path);
    }
    rpm = std::make_unique<FakeRpm>(listing, exes);
  }
  std::string listPath() const { return rpm->dir / "applist"; }
};

std::vector<App> numbered(int n) {
  std::vector<App> out;
  for (int i = 1; i <= n; ++i) out.push_back({"/usr/bin/app" + std::to_string(i), "v" + std::to_string(i)});
  return out;
}

// A 48-byte slot written out by hand: length byte, name, then whatever
// the slot held behind it (stale), version at 33, index at 44.
Bytes slot(const std::string& nameBytes, int nameLen, const std::string& versionBytes,
           int versionLen, std::uint32_t index) {
  Bytes b(48, 0);
  b[0] = static_cast<std::uint8_t>(nameLen);
  std::copy(nameBytes.begin(), nameBytes.end(), b.begin() + 1);
  b[33] = static_cast<std::uint8_t>(versionLen);
  std::copy(versionBytes.begin(), versionBytes.end(), b.begin() + 34);
  b[44] = index >> 24, b[45] = index >> 16, b[46] = index >> 8, b[47] = index;
  return b;
}

struct Answer {
  int result;
  std::vector<Bytes> blocks;
  int pauses;
};

Answer answer(Host& host, std::size_t refuseAt = SIZE_MAX, int pausesAllowed = 1000) {
  CApps apps({}, host.rpm->sources());
  BlockRecorder rec;
  rec.refuseAt = refuseAt;
  int pauses = 0;
  const int result = sendAppList(apps, rec.sink(), [&] { return ++pauses <= pausesAllowed; },
                                 host.listPath());
  return {result, rec.blocks, pauses};
}

TEST(AppsAnswer, NoApplicationIsOneClosingHeader) {
  LogCapture log;
  Host host({});
  const Answer a = answer(host);
  EXPECT_EQ(a.result, 0);
  EXPECT_EQ(a.blocks, (std::vector<Bytes>{listHeader(6, 1, 0)}));
  EXPECT_EQ(slurp(host.listPath()), "");
}

TEST(AppsAnswer, TenApplicationsAreOneFullBatchAndAnEmptyClose) {
  LogCapture log;
  Host host(numbered(10));
  const Answer a = answer(host);
  EXPECT_EQ(a.result, 0);
  ASSERT_EQ(a.blocks.size(), 3u);
  EXPECT_EQ(a.blocks[0], listHeader(6, 0, 10));
  ASSERT_EQ(a.blocks[1].size(), 480u);
  for (std::uint32_t i = 1; i <= 10; ++i) {
    const std::string name = "app" + std::to_string(i), version = "v" + std::to_string(i);
    EXPECT_EQ(Bytes(a.blocks[1].begin() + (i - 1) * 48, a.blocks[1].begin() + i * 48),
              slot(name, name.size(), version, version.size(), i));
  }
  EXPECT_EQ(a.blocks[2], listHeader(6, 1, 0));
  EXPECT_EQ(a.pauses, 1);
}

TEST(AppsAnswer, EleventhApplicationOverwritesOnlyItsOwnBytes) {
  LogCapture log;
  // The first slot first holds a name past 31 characters and a version past
  // 10; the eleventh is shorter in both, so the tails stay behind it.
  std::vector<App> apps = numbered(11);
  apps[0] = {"/usr/bin/an-application-name-longer-than-the-field", "1.2.3-4+deb12u1"};
  apps[10] = {"/usr/tiny", "9"};
  Host host(apps);
  const Answer a = answer(host);
  EXPECT_EQ(a.result, 0);
  ASSERT_EQ(a.blocks.size(), 4u);
  EXPECT_EQ(Bytes(a.blocks[1].begin(), a.blocks[1].begin() + 48),
            slot("an-application-name-longer-than", 31, "1.2.3-4+de", 10, 1));
  EXPECT_EQ(a.blocks[2], listHeader(6, 1, 1));
  EXPECT_EQ(a.blocks[3], slot("tinypplication-name-longer-than", 4, "9.2.3-4+de", 1, 11));
}

TEST(AppsAnswer, TwentyOneApplicationsPauseTwice) {
  LogCapture log;
  Host host(numbered(21));
  const Answer a = answer(host);
  EXPECT_EQ(a.result, 0);
  ASSERT_EQ(a.blocks.size(), 6u);
  EXPECT_EQ(a.blocks[2], listHeader(6, 0, 10));
  EXPECT_EQ(a.blocks[4], listHeader(6, 1, 1));
  EXPECT_EQ(varlo::varlo_app::decodeAt(a.blocks[5].data()).index, 21u);
  EXPECT_EQ(a.pauses, 2);
}

TEST(AppsAnswer, AFailedSendEndsTheAnswerWithoutAClosingHeader) {
  LogCapture log;
  // Block numbers: 0 header, 1 entries, 2 closing header, 3 the last entry.
  const std::pair<std::size_t, std::size_t> cases[] = {{0, 0}, {1, 1}, {2, 2}, {3, 3}};
  for (const auto& [refuseAt, kept] : cases) {
    Host host(numbered(11));
    const Answer a = answer(host, refuseAt);
    EXPECT_EQ(a.result, -1) << refuseAt;
    EXPECT_EQ(a.blocks.size(), kept) << refuseAt;
    EXPECT_EQ(a.pauses, refuseAt >= 2 ? 1 : 0) << refuseAt;
  }
}

TEST(AppsAnswer, AStopDuringThePauseEndsTheAnswer) {
  LogCapture log;
  Host host(numbered(15));
  const Answer a = answer(host, SIZE_MAX, 0);
  EXPECT_EQ(a.result, -1);
  EXPECT_EQ(a.blocks.size(), 2u);  // the first batch, no close
}

TEST(AppsAnswer, TheListFileIsNumberedFromOne) {
  LogCapture log;
  Host host(numbered(12));
  spit(host.listPath(), "an older, longer list that must not show through\n");
  ASSERT_EQ(answer(host).result, 0);
  std::string expected;
  for (int i = 1; i <= 12; ++i) expected += std::to_string(i) + " /usr/bin/app" + std::to_string(i) + "\n";
  EXPECT_EQ(slurp(host.listPath()), expected);
  struct stat st {};
  ASSERT_EQ(::stat(host.listPath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
}

TEST(AppsAnswer, TheListKeepsTheLinesOfABatchTheConsoleDropped) {
  LogCapture log;
  Host host(numbered(25));
  EXPECT_EQ(answer(host, 3).result, -1);  // the second batch's entries fail
  std::string expected;
  for (int i = 1; i <= 20; ++i) expected += std::to_string(i) + " /usr/bin/app" + std::to_string(i) + "\n";
  EXPECT_EQ(slurp(host.listPath()), expected);
}

TEST(AppsAnswer, ALinkPlantedAtTheListPathIsNotFollowed) {
  LogCapture log;
  Host host(numbered(3));
  const std::string target = host.rpm->dir / "precious";
  spit(target, "keep me");
  std::filesystem::create_symlink(target, host.listPath());
  const Answer a = answer(host);
  EXPECT_EQ(a.result, 0);  // the answer goes out all the same
  EXPECT_EQ(a.blocks.size(), 2u);
  EXPECT_EQ(slurp(target), "keep me");
  EXPECT_TRUE(std::filesystem::is_symlink(host.listPath()));
}

TEST(AppsAnswer, DpkgPackagesAreNamedWholeWithVersionsCut) {
  LogCapture log;
  TempDir dir;
  AppSources s;
  s.dpkgRoot = std::string(VARLO_FIXTURES) + "/dpkg";
  s.filesRoot = s.dpkgRoot + "/files";
  s.searchPath = "";
  s.exeDirs = {};
  CApps apps({}, s);
  BlockRecorder rec;
  ASSERT_EQ(sendAppList(apps, rec.sink(), [] { return true; }, dir / "applist"), 0);
  ASSERT_EQ(rec.blocks.size(), 2u);
  EXPECT_EQ(rec.blocks[0], listHeader(6, 1, 3));
  std::set<std::pair<std::string, std::string>> got;
  std::set<std::uint32_t> indexes;
  for (int i = 0; i < 3; ++i) {
    const auto e = varlo::varlo_app::decodeAt(rec.blocks[1].data() + i * 48);
    got.emplace(e.name, e.version);
    indexes.insert(e.index);
  }
  EXPECT_EQ(got, (std::set<std::pair<std::string, std::string>>{
                     {"debianutils", "0"}, {"hostname", "3.23+nmu1"}, {"libc6", "2.36-9+deb"}}));
  EXPECT_EQ(indexes, (std::set<std::uint32_t>{1, 2, 3}));
}

TEST(AppsAnswer, AStopEndsABlockedAnswerPromptly) {
  LogCapture log;
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
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(rec.blocks.empty());
  EXPECT_EQ(slurp(rpm.dir / "applist"), "1 /usr/bin/a\n");
}

}  // namespace
