// The applications collector on fixture hosts: dpkg, rpm, plain folders, bad input, a stop.
#include "software/apps.h"

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <thread>

#include "software/app_fixtures.h"
#include "test_support.h"

using app_fixtures::FakeRpm;
using app_fixtures::nowhere;
using app_fixtures::putFile;
using test_support::spit;
using test_support::TempDir;
using Pairs = std::multimap<std::string, std::string>;
using Versions = std::map<std::string, std::string>;
using namespace std::chrono_literals;
using namespace std::string_literals;

namespace {

const std::string kDpkg = std::string(VARLO_FIXTURES) + "/dpkg";

TEST(AppsDpkg, FixtureHostListsPackagesOwningAProgramAndNoFolder) {
  CApps apps({}, {kDpkg, kDpkg + "/files", {kDpkg + "/files/bin"}, "", "rpm"});
  EXPECT_EQ(apps.findApps(), 0);
  // base-files owns only folders and plain files; debianutils has no Version line and a package
  // after it; libc6's list is libc6:amd64.list. The folder is not searched: dpkg answered.
  EXPECT_EQ(apps.added(), (Pairs{{"debianutils", "0"},
                                 {"hostname", "3.23+nmu1"},
                                 {"libc6", "2.36-9+deb12u14"}}));
}

// getDpkgList's versions and pairs over files/bin/tool (mode 0755), status and info/p.list
// (a FIFO without one).
std::pair<Versions, Pairs> dpkg(const std::optional<std::string>& status,
                                const std::optional<std::string>& list = "/bin/tool\n") {
  TempDir dir;
  const AppSources s = {.dpkgRoot = dir / "dpkg", .filesRoot = dir / "files", .exeDirs = {},
                        .searchPath = "", .rpmName = "rpm"};
  putFile(s.filesRoot, "/bin/tool", 0755);
  std::filesystem::create_directories(s.dpkgRoot + "/info");
  if (status) spit(s.dpkgRoot + "/status", *status);
  if (list) spit(s.dpkgRoot + "/info/p.list", *list);
  EXPECT_TRUE(list || ::mkfifo((s.dpkgRoot + "/info/p.list").c_str(), 0644) == 0);
  CApps apps({}, s);
  EXPECT_EQ(apps.getDpkgList(), 0);
  return {apps.versions(), apps.added()};
}

TEST(AppsDpkg, StatusFileQuirks) {
  const struct {
    const char* what;
    std::string text;
    Versions versions;
  } cases[] = {
      {"no version before another package gives 0",
       "Package: a\nVersion: 1\nPackage: b\nPackage: c\nVersion: 3\n",
       {{"a", "1"}, {"b", "0"}, {"c", "3"}}},
      {"no version at the end takes the one read before",
       "Package: a\nVersion: 1\nPackage: b\nStatus: x\n", {{"a", "1"}, {"b", "1"}}},
      {"a Version with nothing pending is ignored", "Version: 9\nPackage: a\n", {{"a", "0"}}},
      {"a second Version is ignored", "Package: a\nVersion: 1\nVersion: 2\n", {{"a", "1"}}},
      {"words, not lines; other fields", "Package: a Config-Version: 7 Version: 2", {{"a", "2"}}},
  };
  for (const auto& c : cases) EXPECT_EQ(dpkg(c.text).first, c.versions) << c.what;
}

TEST(AppsDpkg, BadInputIsSkippedAndTheWalkGoesOn) {
  const std::string plain = "Package: p\nVersion: 1\n";
  const struct {
    const char* what;
    std::optional<std::string> status, list;
    Pairs added;
  } cases[] = {
      {"missing status file", std::nullopt, "/bin/tool\n", {{"p", ""}}},
      {"status cut short in a stanza", "Package: o\nVersion: 1\nPackage: p\nVers", "/bin/tool",
       {{"p", "1"}}},
      {"binary status", "\0\xff Package: p\nVersion: \x80\nPackage: p\0q Version: 2"s, "/bin/tool",
       {{"p", "\x80"}}},
      {"huge status word", std::string(2 << 20, 'v') + " " + plain, "/bin/tool", {{"p", "1"}}},
      // A NUL inside a word must not make stat see "/bin/tool".
      {"binary list", plain, "/bin/tool\0junk\n\x01\xff\n"s, {}},
      {"huge list word", plain, std::string(3 << 20, 'x') + "\n/bin/tool", {{"p", "1"}}},
      {"a FIFO for a list", plain, std::nullopt, {}},
  };
  for (const auto& c : cases) EXPECT_EQ(dpkg(c.status, c.list).second, c.added) << c.what;
}

TEST(AppsFolders, WithoutADpkgListEveryEntryItsOwnerMayRunCounts) {
  TempDir dir;
  spit(dir / "status", "Package: a\nVersion: 1\n");  // but no info folder
  const std::string d = dir / "bin";
  putFile(d, "/tool", 0755);
  putFile(d, "/mine", 0700);
  putFile(d, "/theirs", 0011);  // group and others only
  putFile(d, "/text", 0644);
  std::filesystem::create_directories(d + "/subdir");
  std::filesystem::create_symlink(d + "/tool", d + "/link");
  std::filesystem::create_symlink(d + "/gone", d + "/dangling");
  AppSources s = nowhere(dir);
  s.dpkgRoot = dir.path;
  s.exeDirs = {dir / "missing", d};
  CApps apps({}, s);
  EXPECT_EQ(apps.findApps(), 0);
  EXPECT_EQ(apps.added(),
            (Pairs{{d + "/link", ""}, {d + "/mine", ""}, {d + "/subdir", ""}, {d + "/tool", ""}}));
}

TEST(AppsRpm, StandInListingWithTheExactQueryFormat) {
  // Only programs under /usr count, and no library or document.
  FakeRpm rpm(
      "App: tool 1.2\n/usr/bin/tool\n/usr/lib/libtool.so.1\n/opt/bin/other\n/usr/bin/missing\n"
      "App: other 3.0\n/usr/bin/tool\n/usr/sbin/otherd\n/bin/usrtool\nApp: cut",
      {"/usr/bin/tool", "/usr/lib/libtool.so.1", "/opt/bin/other", "/usr/sbin/otherd",
       "/bin/usrtool"});
  CApps apps({}, rpm.sources());
  EXPECT_EQ(apps.findApps(), 0);
  EXPECT_EQ(apps.added(), (Pairs{{"/usr/bin/tool", "1.2"},
                                 {"/usr/bin/tool", "3.0"},
                                 {"/usr/sbin/otherd", "3.0"}}));
  EXPECT_EQ(test_support::slurp(rpm.dir / "format"), "App: %{Name} %{Version}\n[%{Filenames}\n]");
}

TEST(AppsStop, AStopWakesAConsumerNoProducerWould) {
  std::stop_source stop;
  CApps apps(stop.get_token());  // no producer: nothing will come
  std::atomic<bool> woke = false;
  std::jthread stopper([&] {
    std::this_thread::sleep_for(100ms);
    stop.request_stop();
    for (int i = 0; i < 300 && !woke; ++i) std::this_thread::sleep_for(10ms);
    if (!woke) apps.addApp("late", "");  // a failure rather than a hang
  });
  const auto begin = std::chrono::steady_clock::now();
  std::string name, version;
  EXPECT_EQ(apps.getNextApp(name, version), 1);
  woke = true;
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
}

}  // namespace
