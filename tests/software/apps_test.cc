// The applications collector on fixture hosts: dpkg lists and status, rpm's
// listing, plain folders, and a stop in the middle of it all.
#include "software/apps.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <set>
#include <thread>

#include "software/app_fixtures.h"
#include "test_support.h"

using app_fixtures::FakeRpm;
using app_fixtures::nowhere;
using app_fixtures::putFile;
using test_support::LogCapture;
using test_support::spit;
using test_support::TempDir;
using Pairs = std::multimap<std::string, std::string>;
using namespace std::chrono_literals;

namespace {

const std::string kDpkg = std::string(VARLO_FIXTURES) + "/dpkg";

// What the collector logged, without the log's own opening line.
std::vector<std::string> logged(const LogCapture& log) {
  std::vector<std::string> out;
  for (const std::string& m : log.messages())
    if (m != "Log Opened Successfully") out.push_back(m);
  return out;
}

AppSources fixtureDpkg() {
  AppSources s;
  s.dpkgRoot = kDpkg;
  s.filesRoot = kDpkg + "/files";
  s.searchPath = "";
  s.exeDirs = {};
  return s;
}

// Everything getNextApp hands out until the end of the list.
std::vector<std::pair<std::string, std::string>> drain(CApps& apps) {
  std::vector<std::pair<std::string, std::string>> out;
  std::string name, version;
  while (apps.getNextApp(name, version) == 0) out.emplace_back(name, version);
  return out;
}

TEST(AppsDpkg, FixtureHostListsPackagesOwningAnExecutable) {
  LogCapture log;
  CApps apps({}, fixtureDpkg());
  EXPECT_EQ(apps.getDpkgList(), 0);
  // base-files owns only folders and plain files; debianutils has no
  // Version line and a package after it; libc6's list is libc6:amd64.list.
  EXPECT_EQ(apps.added(), (Pairs{{"debianutils", "0"},
                                 {"hostname", "3.23+nmu1"},
                                 {"libc6", "2.36-9+deb12u14"}}));
  EXPECT_EQ(apps.versions().at("base-files"), "12.4+deb12u11");
  EXPECT_TRUE(logged(log).empty());
}

TEST(AppsDpkg, FindAppsPrefersDpkgAndEndsWithOneWakeUp) {
  LogCapture log;
  TempDir dir;
  putFile(dir.path, "/exe/tool", 0755);
  AppSources s = fixtureDpkg();
  s.exeDirs = {dir / "exe"};  // not searched: dpkg answered
  CApps apps({}, s);
  EXPECT_EQ(apps.findApps(), 0);
  const auto got = drain(apps);
  EXPECT_EQ(got.size(), 3u);
  for (const auto& [name, version] : got) EXPECT_NE(name, dir / "exe/tool");
  EXPECT_EQ(logged(log), (std::vector<std::string>{"Starting findApps", "Finished findApps"}));
}

TEST(AppsDpkg, MissingInfoFolderFallsBackToTheFolders) {
  LogCapture log;
  TempDir dir;
  spit(dir / "status", "Package: a\nVersion: 1\n");
  putFile(dir.path, "/exe/tool", 0755);
  AppSources s = nowhere(dir);
  s.dpkgRoot = dir.path;
  s.exeDirs = {dir / "exe"};
  CApps apps({}, s);
  apps.findApps();
  EXPECT_EQ(drain(apps), (std::vector<std::pair<std::string, std::string>>{{dir / "exe/tool", ""}}));
  EXPECT_TRUE(log.contains("Error opening directory: " + dir / "info" + " Error: 2"));
}

// The status file's words, and the versions they leave.
struct StatusCase {
  const char* what;
  std::string text;
  std::map<std::string, std::string> versions;
};

TEST(AppsDpkg, VersionListQuirks) {
  const StatusCase cases[] = {
      {"plain", "Package: a\nVersion: 1\nPackage: b\nVersion: 2\n", {{"a", "1"}, {"b", "2"}}},
      {"no version before another package gives 0",
       "Package: a\nVersion: 1\nPackage: b\nPackage: c\nVersion: 3\n",
       {{"a", "1"}, {"b", "0"}, {"c", "3"}}},
      {"no version at the end takes the one read before",
       "Package: a\nVersion: 1\nPackage: b\nStatus: x\n", {{"a", "1"}, {"b", "1"}}},
      {"no version at the end and none before", "Package: b\n", {{"b", "0"}}},
      {"a Version with nothing pending is ignored", "Version: 9\nPackage: a\n", {{"a", "0"}}},
      {"a second Version is ignored", "Package: a\nVersion: 1\nVersion: 2\n", {{"a", "1"}}},
      {"words, not lines", "Package: a Version: 2", {{"a", "2"}}},
      {"CR LF line ends", "Package: a\r\nVersion: 1\r\n", {{"a", "1"}}},
      {"Package at the very end", "Package: a\nVersion: 1\nPackage:", {{"a", "1"}}},
      {"Version at the very end", "Package: a\nVersion: 1\nPackage: b\nVersion:",
       {{"a", "1"}, {"b", "1"}}},
      {"fields of other names", "Package: a\nConfig-Version: 7\nVersion: 1\n", {{"a", "1"}}},
      {"empty", "", {}},
  };
  for (const StatusCase& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    spit(dir / "status", c.text);
    AppSources s = nowhere(dir);
    s.dpkgRoot = dir.path;
    CApps apps({}, s);
    std::map<std::string, std::string> versions{{"stale", "x"}};
    versions.clear();
    apps.createVersionList(versions);
    EXPECT_EQ(versions, c.versions);
  }
}

TEST(AppsDpkg, MissingStatusFileIsLogged) {
  LogCapture log;
  TempDir dir;
  AppSources s = nowhere(dir);
  s.dpkgRoot = dir.path;
  CApps apps({}, s);
  std::map<std::string, std::string> versions;
  apps.createVersionList(versions);
  EXPECT_TRUE(versions.empty());
  EXPECT_TRUE(log.contains("Unable to open dpkg status file: " + dir / "status"));
}

TEST(AppsDpkg, PackageNameOfAListFile) {
  const std::pair<const char*, const char*> cases[] = {
      {"/var/lib/dpkg/info/hostname.list", "hostname"},
      {"/var/lib/dpkg/info/libc6:amd64.list", "libc6"},
      {"/var/lib/dpkg/info/libstdc++6:i386.list", "libstdc++6"},
      {"/var/lib/dpkg/info/python3.11.list", "python3.11"},
      {"/x/info/:amd64.list", ""},
      {"hostname.list", ""},          // no '/'
      {"/x/info/hostname", ""},       // no '.'
      {"/x.d/info/hostname", ""},     // the last '.' before the last '/'
  };
  for (const auto& [path, name] : cases) EXPECT_EQ(CApps::packageOfListFile(path), name) << path;
}

// A dpkg root of its own: status text, list files by name, a files tree.
struct DpkgHost {
  TempDir dir;
  AppSources sources;
  DpkgHost(const std::string& status, const std::map<std::string, std::string>& lists) {
    sources = nowhere(dir);
    sources.dpkgRoot = dir / "dpkg";
    sources.filesRoot = dir / "files";
    std::filesystem::create_directories(dir / "dpkg/info");
    spit(dir / "dpkg/status", status);
    for (const auto& [name, text] : lists) spit(dir / "dpkg/info/" + name, text);
  }
  std::string list(const std::string& name) const { return dir / "dpkg/info/" + name; }
};

TEST(AppsDpkg, EachPackageOnceWhateverItsListsHold) {
  LogCapture log;
  DpkgHost host("Package: libc6\nVersion: 2.36\nPackage: tools\nVersion: 1\n",
                {{"libc6:amd64.list", "/usr\n/usr/bin/a\n/usr/bin/b\n"},
                 {"libc6:i386.list", "/usr/bin/b\n"},
                 {"tools.list", "/usr/bin/a\n/usr/bin/c\n"},
                 {"unknown.list", "/usr/bin/c"},  // in no stanza, no line end
                 {"docs.list", "/usr/share/doc/x\n"},
                 // Its one program lies outside the bin folders.
                 {"scripts.list", "/usr/bin/plain\n/usr/share/scripts/run\n/usr/bin/d\n"},
                 {"tools.md5sums", "/usr/bin/a\n"}});
  for (const char* exe : {"/usr/bin/a", "/usr/bin/b", "/usr/bin/c"})
    putFile(host.dir / "files", exe, 0755);
  putFile(host.dir / "files", "/usr/share/doc/x", 0644);
  putFile(host.dir / "files", "/usr/bin/plain", 0644);
  putFile(host.dir / "files", "/usr/share/scripts/run", 0750);
  std::filesystem::create_directories(host.dir / "files/usr/bin/d");
  CApps apps({}, host.sources);
  EXPECT_EQ(apps.getDpkgList(), 0);
  EXPECT_EQ(apps.added(),
            (Pairs{{"libc6", "2.36"}, {"scripts", ""}, {"tools", "1"}, {"unknown", ""}}));
  EXPECT_TRUE(logged(log).empty());
}

TEST(AppsDpkg, OnlyRegularFilesWithAnExecuteBitCount) {
  DpkgHost host("", {});
  const std::string files = host.dir / "files";
  putFile(files, "/owner", 0700);
  putFile(files, "/other", 0601);
  putFile(files, "/plain", 0644);
  std::filesystem::create_directories(files + "/dir");
  std::filesystem::create_symlink(files + "/owner", files + "/link");
  const std::pair<const char*, bool> cases[] = {
      {"/owner", true}, {"/other", true}, {"/link", true},
      {"/plain", false}, {"/dir", false}, {"/missing", false},
  };
  for (const auto& [path, listed] : cases) {
    spit(host.list("p.list"), std::string(path) + "\n");
    CApps apps({}, host.sources);
    EXPECT_EQ(apps.processListFile(host.list("p.list")), 0);
    EXPECT_EQ(apps.added().size(), listed ? 1u : 0u) << path;
  }
}

TEST(AppsDpkg, BadListFilesAreLoggedAndSkipped) {
  LogCapture log;
  DpkgHost host("Package: p\nVersion: 1\n", {});
  putFile(host.dir / "files", "/bin/tool", 0755);
  std::filesystem::create_directories(host.list("folder.list"));
  ASSERT_EQ(::mkfifo(host.list("fifo.list").c_str(), 0644), 0);
  // A NUL inside a word must not make stat see "/bin/tool".
  spit(host.list("binary.list"), std::string("/bin/tool\0junk\n\x01\xff\n", 16));
  spit(host.list("huge.list"), std::string(3 << 20, 'x') + "/bin/tool");
  CApps apps({}, host.sources);
  EXPECT_EQ(apps.processListFile(host.list("missing.list")), -1);
  EXPECT_EQ(apps.processListFile(host.list("folder.list")), -1);
  EXPECT_EQ(apps.processListFile(host.list("fifo.list")), -1);
  EXPECT_EQ(apps.processListFile(host.list("binary.list")), 0);
  EXPECT_EQ(apps.processListFile(host.list("huge.list")), 0);
  EXPECT_TRUE(apps.added().empty());
  for (const char* name : {"missing.list", "folder.list", "fifo.list"})
    EXPECT_TRUE(log.contains("Unable to open file " + host.list(name))) << name;
  // The whole walk goes on past them.
  spit(host.list("p.list"), "/bin/tool");
  EXPECT_EQ(apps.getDpkgList(), 0);
  EXPECT_EQ(apps.added(), (Pairs{{"p", "1"}}));
}

TEST(AppsDpkg, BinaryAndHugeStatusFiles) {
  LogCapture log;
  // A status file cut short inside a stanza, then garbage.
  static constexpr char kJunk[] = "\0\xff\x01 Package: c\0d Version: \x80\n";
  std::string status = "Package: a\nVersion: 1\nPackage: b\nVers";
  status += std::string(kJunk, sizeof kJunk - 1);
  status += std::string(2 << 20, 'v');  // one word, cut by the reader
  DpkgHost host(status, {});
  CApps apps({}, host.sources);
  std::map<std::string, std::string> versions;
  apps.createVersionList(versions);
  EXPECT_EQ(versions.at("a"), "1");
  EXPECT_EQ(versions.at("b"), "0");
  ASSERT_EQ(versions.count(std::string("c\0d", 3)), 1u);
  EXPECT_EQ(versions.at(std::string("c\0d", 3)), "\x80");
}

TEST(AppsQueue, RepeatedPairsAreDroppedAndOrderKept) {
  TempDir dir;
  CApps apps({}, nowhere(dir));
  apps.addApp("/usr/bin/a", "1");
  apps.addApp("/usr/bin/b", "");
  apps.addApp("/usr/bin/a", "1");
  apps.addApp("/usr/bin/a", "2");
  apps.findApps();  // searches nothing; adds the final wake-up
  EXPECT_EQ(drain(apps), (std::vector<std::pair<std::string, std::string>>{
                             {"/usr/bin/a", "1"}, {"/usr/bin/b", ""}, {"/usr/bin/a", "2"}}));
  EXPECT_EQ(apps.added().size(), 3u);
}

TEST(AppsQueue, ResetPtrQueuesEverythingAgainInNameOrderAndEnds) {
  TempDir dir;
  CApps apps({}, nowhere(dir));
  apps.addApp("b", "1");
  apps.addApp("a", "2");
  apps.addApp("a", "1");
  std::string name, version;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(apps.getNextApp(name, version), 0);
  apps.resetPtr();
  EXPECT_EQ(drain(apps), (std::vector<std::pair<std::string, std::string>>{
                             {"a", "2"}, {"a", "1"}, {"b", "1"}}));
}

TEST(AppsFolders, OwnerExecuteBitDecidesAndFoldersCount) {
  LogCapture log;
  TempDir dir;
  const std::string d = dir / "bin";
  putFile(d, "/tool", 0755);
  putFile(d, "/mine", 0700);
  putFile(d, "/theirs", 0011);  // group and others only
  putFile(d, "/text", 0644);
  std::filesystem::create_directories(d + "/subdir");
  std::filesystem::create_directories(d + "/closed");
  ::chmod((d + "/closed").c_str(), 0600);
  std::filesystem::create_symlink(d + "/tool", d + "/link");
  std::filesystem::create_symlink(d + "/gone", d + "/dangling");
  AppSources s = nowhere(dir);
  s.exeDirs = {d, dir / "missing"};
  CApps apps({}, s);
  apps.findApps();
  std::set<std::string> got;
  for (const auto& [name, version] : drain(apps)) {
    EXPECT_EQ(version, "");
    got.insert(name);
  }
  EXPECT_EQ(got, (std::set<std::string>{d + "/tool", d + "/mine", d + "/subdir", d + "/link"}));
  EXPECT_TRUE(log.contains("Error opening directory: " + dir / "missing" + " Error: 2"));
}

TEST(AppsRpm, StandInListingWithTheExactQueryFormat) {
  LogCapture log;
  FakeRpm rpm(
      "App: tool 1.2\n/usr/bin/tool\n/usr/lib/libtool.so.1\n/usr/share/doc/tool/README\n"
      "/opt/bin/other\n/usr/bin/missing\n"
      "App: other 3.0\n/usr/bin/tool\n/usr/sbin/otherd\n/bin/usrtool\n",
      {"/usr/bin/tool", "/usr/lib/libtool.so.1", "/opt/bin/other", "/usr/sbin/otherd",
       "/bin/usrtool"});
  putFile(rpm.dir / "files", "/usr/share/doc/tool/README", 0644);
  CApps apps({}, rpm.sources());
  EXPECT_EQ(apps.findApps(), 0);
  EXPECT_EQ(drain(apps), (std::vector<std::pair<std::string, std::string>>{
                             {"/usr/bin/tool", "1.2"}, {"/usr/bin/tool", "3.0"},
                             {"/usr/sbin/otherd", "3.0"}}));
  EXPECT_EQ(test_support::slurp(rpm.dir / "format"), "App: %{Name} %{Version}\n[%{Filenames}\n]");
  EXPECT_EQ(logged(log), (std::vector<std::string>{"Starting findApps", "Finished findApps"}));
}

TEST(AppsRpm, AnRpmThatCannotRunIsLogged) {
  LogCapture log;
  TempDir dir;
  putFile(dir.path, "/bin/rpm", 0755, "\x7f" "ELF not really");
  AppSources s = nowhere(dir);
  s.searchPath = dir / "bin";
  CApps apps({}, s);
  EXPECT_EQ(apps.getRPMList(), -1);
  EXPECT_TRUE(log.contains("Could not run rpm command. Error: " + std::to_string(ENOEXEC)));
}

TEST(AppsRpm, TruncatedListingEndsCleanly) {
  FakeRpm rpm("App: tool", {"/usr/bin/tool"});
  CApps apps({}, rpm.sources());
  EXPECT_EQ(apps.getRPMList(), 0);
  EXPECT_TRUE(apps.added().empty());
}

TEST(AppsStop, AWaitingConsumerWakesAtOnce) {
  std::stop_source stop;
  TempDir dir;
  CApps apps(stop.get_token(), nowhere(dir));  // no producer: nothing will come
  std::jthread stopper([&] {
    std::this_thread::sleep_for(100ms);
    stop.request_stop();
  });
  const auto begin = std::chrono::steady_clock::now();
  std::string name, version;
  EXPECT_EQ(apps.getNextApp(name, version), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
}

TEST(AppsStop, AHangingRpmIsKilledAndTheThreadJoined) {
  LogCapture log;
  FakeRpm rpm("App: a 1\n/usr/bin/a\n", {"/usr/bin/a"}, "exec sleep 30\n");
  std::stop_source stop;
  const auto begin = std::chrono::steady_clock::now();
  {
    CApps apps(stop.get_token(), rpm.sources());
    ASSERT_EQ(CApps::startThread(apps), 0);
    std::string name, version;
    ASSERT_EQ(apps.getNextApp(name, version), 0);
    EXPECT_EQ(name, "/usr/bin/a");
    std::jthread stopper([&] {
      std::this_thread::sleep_for(100ms);
      stop.request_stop();
    });
    EXPECT_EQ(apps.getNextApp(name, version), 1);
  }  // joins the producer, which reaps rpm
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
}

TEST(AppsStop, DroppingTheListEndsTheSearch) {
  FakeRpm rpm("App: a 1\n/usr/bin/a\n", {"/usr/bin/a"}, "exec sleep 30\n");
  const auto begin = std::chrono::steady_clock::now();
  {
    CApps apps({}, rpm.sources());
    ASSERT_EQ(CApps::startThread(apps), 0);
    std::string name, version;
    ASSERT_EQ(apps.getNextApp(name, version), 0);
  }  // nobody reads on: the destructor stops and joins
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
}

}  // namespace
