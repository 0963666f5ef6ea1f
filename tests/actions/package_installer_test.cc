// The agent's own update: the installer's command line with and without a
// service manager, and what the child leaves in its log when the archive or
// the package is bad.
#include "actions/package_installer.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "test_support.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

void tool(const std::string& path, const std::string& body) {
  test_support::spit(path, "#!/bin/sh\n" + body);
  chmod(path.c_str(), 0755);
}

TEST(PackageInstaller, CommandLineWithAndWithoutTheServiceManager) {
  test_support::TempDir dir;
  std::filesystem::create_directories(dir / "systemd");
  for (const char* d : {"deb", "rpm", "none"}) std::filesystem::create_directories(dir / d);
  tool(dir / "deb/dpkg", "");
  tool(dir / "deb/systemd-run", "");
  tool(dir / "rpm/rpm", "");
  InstallSettings s;
  s.searchPath = dir / "deb";
  s.systemdMarker = dir / "no-systemd";
  EXPECT_THAT(installerCommand("/tmp/Varlo.pkg", s, "/tmp/vlinstall.log"),
              ElementsAre(dir / "deb/dpkg", "--install", "--recursive", "/tmp/Varlo.pkg"));

  s.systemdMarker = dir / "systemd";
  const auto unit = installerCommand("/tmp/Varlo.pkg", s, "/tmp/vlinstall.log");
  ASSERT_EQ(unit.size(), 11u);
  EXPECT_EQ(unit[0], dir / "deb/systemd-run");
  EXPECT_THAT(unit[1], MatchesRegex("--unit=varlo-update-[0-9]+-[0-9]+"));
  EXPECT_THAT(std::vector<std::string>(unit.begin() + 2, unit.end()),
              ElementsAre("--collect", "--quiet", "--no-block",
                          "--property=StandardOutput=append:/tmp/vlinstall.log",
                          "--property=StandardError=append:/tmp/vlinstall.log", dir / "deb/dpkg",
                          "--install", "--recursive", "/tmp/Varlo.pkg"));
  const auto again = installerCommand("/tmp/Varlo.pkg", s);
  EXPECT_NE(again[1], unit[1]) << "a second update is a unit of its own";
  EXPECT_EQ(again.size(), 9u) << "no log of root's, no output properties";

  s.searchPath = dir / "rpm";  // no systemd-run there: started directly
  EXPECT_THAT(installerCommand("/tmp/Varlo.pkg", s),
              ElementsAre("/bin/sh", "-c", "exec \"$0\" --upgrade --replacepkgs \"$1\"/*.rpm",
                          dir / "rpm/rpm", "/tmp/Varlo.pkg"));
  s.searchPath = dir / "none";
  EXPECT_TRUE(installerCommand("/tmp/Varlo.pkg", s).empty());
}

// A truncated archive, a package the installer rejects, a package whose
// data is cut short: the log says why, and a damaged package never reaches
// the installer (which would stop the running agent first).
TEST(PackageInstaller, TheLogSaysWhyNothingWasInstalled) {
  struct Case {
    bool goodArchive;
    bool withDpkgDeb;
    std::vector<std::string> said;
    bool installerRan;
  };
  for (const Case& c :
       {Case{false, false, {"gzip: stdin: unexpected end of file", "Package is located at: ",
                            "dpkg: error processing archive "}, true},
        Case{true, true, {"dpkg-deb: unexpected end of data", "x_1.0_all.deb is damaged: nothing was installed"},
             false}}) {
    test_support::TempDir dir;
    std::filesystem::create_directories(dir / "bin");
    tool(dir / "bin/dpkg", "echo ran > " + dir / "ran\necho \"dpkg: error processing archive $3\" >&2\nexit 1\n");
    if (c.withDpkgDeb) tool(dir / "bin/dpkg-deb", "echo 'dpkg-deb: unexpected end of data' >&2\nexit 2\n");
    if (c.goodArchive) {
      std::filesystem::create_directories(dir / "src/Varlo.pkg");
      test_support::spit(dir / "src/Varlo.pkg/x_1.0_all.deb", "half a package");
      ASSERT_EQ(std::system(("tar -czf " + dir / "Varlo.pkg.tar.gz" + " -C " + dir / "src Varlo.pkg").c_str()), 0);
    } else {
      test_support::spit(dir / "Varlo.pkg.tar.gz", std::string("\x1f\x8b\x08\x00garbage", 12));
    }
    std::filesystem::create_directories(dir / "Varlo.pkg");
    test_support::spit(dir / "Varlo.pkg/left_by_an_earlier_update.deb", "");
    InstallSettings s;
    s.searchPath = dir / "bin";
    s.systemdMarker = dir / "no-systemd";
    s.log = dir / "install.log";
    s.workDir = dir.path;
    const pid_t pid = replaceVL(dir.path + "/", "Varlo.pkg.tar.gz", s);
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    const std::string log = test_support::slurp(dir / "install.log").value_or("");
    for (const auto& text : c.said) EXPECT_THAT(log, HasSubstr(text));
    EXPECT_EQ(std::filesystem::exists(dir / "ran"), c.installerRan) << log;
    EXPECT_FALSE(std::filesystem::exists(dir / "Varlo.pkg/left_by_an_earlier_update.deb"));
  }
}

}  // namespace
