#include "base/util.h"

#include "base/dir_handle.h"

#include "test_support.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <tuple>

namespace fs = std::filesystem;

namespace {

using test_support::TempDir;

template <typename F>
std::string thrownBy(F f) {
  try { f(); } catch (const std::string& s) { return s; }
  return "<nothing thrown>";
}

}  // namespace

TEST(UtilFiles, IsDirOpenDirAndGetNextFile) {
  TempDir t;
  std::ofstream(t / "one") << "x";
  fs::create_directory(t / "two");
  EXPECT_TRUE(Util::isDir(t.path));
  EXPECT_FALSE(Util::isDir(t / "one"));
  const std::string err = " Error: " + std::to_string(ENOENT);
  EXPECT_EQ(thrownBy([&] { Util::isDir(t / "no"); }),
            "Error getting stats for file.  File: " + t / "no" + err);
  EXPECT_EQ(thrownBy([&] { Util::openDir(t / "no"); }), "Error opening directory: " + t / "no" + err);

  DirHandle dir(Util::openDir(t.path));
  std::set<std::string> names;
  for (std::string n; Util::getNextFile(dir.get(), n) == 0;) names.insert(n);
  EXPECT_EQ(names, (std::set<std::string>{".", "..", "one", "two"}));
  std::string n;
  EXPECT_EQ(Util::getNextFile(dir.get(), n), 1);  // exhausted is an end, not an error
  EXPECT_EQ(Util::getNextFile(nullptr, n), -1);
}

TEST(UtilMakeDir, RecursiveMakesAncestorsOnly) {
  TempDir t;
  EXPECT_EQ(Util::makeDir(t / "a/b/file", true), 0);
  EXPECT_TRUE(fs::is_directory(t / "a/b"));
  EXPECT_FALSE(fs::exists(t / "a/b/file"));
  EXPECT_EQ(Util::makeDir(t / "x/y/", true), 0);
  EXPECT_TRUE(fs::is_directory(t / "x/y"));
  std::ofstream(t / "f") << "x";
  EXPECT_EQ(Util::makeDir(t / "f/sub/file", true), ENOTDIR);
  EXPECT_EQ(Util::makeDir(t / "missing/sub", false), ENOENT);
}

TEST(UtilMakeDir, BareAndRelativeNames) {
  TempDir t;
  const fs::path cwd = fs::current_path();
  fs::current_path(t.path);
  EXPECT_EQ(Util::makeDir("bare", true), 0);
  EXPECT_FALSE(fs::exists(t / "bare"));
  EXPECT_EQ(Util::makeDir("bare", false), 0);
  EXPECT_TRUE(fs::is_directory(t / "bare"));
  EXPECT_EQ(Util::makeDir("bare", false), 0);  // existing is success both ways
  EXPECT_EQ(Util::makeDir("bare/", true), 0);
  EXPECT_EQ(Util::makeDir("./dot/in/file", true), 0);
  EXPECT_TRUE(fs::is_directory(t / "dot/in"));
  fs::current_path(cwd);
}

TEST(UtilNames, IsProcessDir) {
  TempDir t;
  for (const char* d : {"123", "42abc", "self"}) fs::create_directory(t / d);
  std::ofstream(t / "77") << "x";
  EXPECT_TRUE(Util::isProcessDir("123", t.path));
  EXPECT_TRUE(Util::isProcessDir("42abc", t.path));
  EXPECT_FALSE(Util::isProcessDir("self", t.path));
  EXPECT_FALSE(Util::isProcessDir("77", t.path));
  EXPECT_THROW(Util::isProcessDir("999", t.path), std::string);
  EXPECT_TRUE(Util::isProcessDir(std::to_string(getpid())));
}

TEST(UtilNames, IsNonExeFileIsASubstringTest) {
  for (const char* n : {"libc.so.6", "report.odt", "notes.org", "lib.a.b", "z.la", "x.xml", "a.jpg",
                        "b.png"})
    EXPECT_TRUE(Util::isNonExeFile(n)) << n;
  for (const char* n : {"bash", "run.sh", "", "jpg"}) EXPECT_FALSE(Util::isNonExeFile(n)) << n;
}

TEST(UtilNames, ConvertVersiontoLong) {
  const std::pair<const char*, unsigned long> cases[] = {
      {"10.4.11b", 0x0A040B}, {"2.1", 0x020102}, {"10.4 ", 0x0A040A},
      {"1.2.3", 0x010200},     // patch digits run to the end: not read
      {"1.300.7x", 0x012C07},  // minor above 255 spills into the major
      {"", 0},                 {"abc", 0}};
  for (const auto& [text, want] : cases) {
    unsigned long out = 0xDEAD;
    Util::convertVersiontoLong(text, out);
    EXPECT_EQ(out, want) << '"' << text << '"';
  }
}

TEST(UtilText, PascalStrings) {
  char dst[300];
  std::memset(dst, '#', sizeof dst);
  Util::CtoPString("abcdefgh", dst, 4);
  EXPECT_EQ(std::string(dst, 5), "\x03" "abc#");  // max - 1 characters, no NUL
  const std::string longSrc(299, 'z');
  Util::CtoPString(longSrc.c_str(), dst, 300);  // the count byte cannot pass 255
  EXPECT_EQ(static_cast<unsigned char>(dst[0]), 255);
  EXPECT_EQ(dst[256], '#');
  Util::CtoPString(nullptr, nullptr, 32);

  std::string pas(1, '\x28');
  for (int i = 0; i < 40; ++i) pas += static_cast<char>('A' + i % 26);
  std::memset(dst, '#', sizeof dst);
  Util::PtoCString(pas.data(), dst, 32);
  EXPECT_EQ(std::string(dst, 42), pas.substr(1, 32) + std::string("########\0#", 10));
  Util::PtoCString("\x02hi", nullptr, 32);
}

TEST(UtilText, UnicodeToASCIIKeepsLowByte) {
  const std::uint16_t src[] = {'A', 0x00E9, 0x0141, 'z'};
  char dst[8];
  std::memset(dst, '#', sizeof dst);
  Util::UnicodeToASCII(src, 4, dst, 6);
  EXPECT_EQ(std::string(dst, 7), std::string("A\xE9" "Az\0\0#", 7));
  Util::UnicodeToASCII(src, 4, dst, 3);
  EXPECT_EQ(std::string(dst, 4), std::string("A\xE9\0z", 4));
  EXPECT_EQ(Util::UnicodeToASCII(nullptr, 4, dst, 8), 0);
  Util::UnicodeToASCII(src, 4, dst, 0);
  EXPECT_EQ(dst[2], '\0');
}

TEST(UtilLinuxVersion, Banners) {
  TempDir t;
  const std::string f = t / "version";
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"Linux\n", "", "*nix"},
      {"Linux version 5.0", "5.0", "*nix"},
      // Only two '(': the third pass falls back to the text before the first ')'.
      {"Linux version 5.0 (a) (b)\n", "5.0", "Linux version 5.0 (a"},
      {"Linux version " + std::string(600, 'x'), std::string(498, 'x'), "*nix"}};  // 512 bytes read
  std::string version = "old", distro = "old";
  for (const auto& [banner, wantVersion, wantDistro] : cases) {
    std::ofstream(f) << banner;
    Util::getLinuxVersion(version, distro, f);
    EXPECT_EQ(version + "|" + distro, wantVersion + "|" + wantDistro) << banner;
  }
  Util::getLinuxVersion(version, distro, VARLO_FIXTURES "/proc_version/debian-6.1.0-18-amd64");
  EXPECT_EQ(version + "|" + distro, "6.1.0-18-amd64|Debian 12.2.0-14");
  Util::getLinuxVersion(version, distro, VARLO_FIXTURES "/proc_version/gcc15-6.18.44");
  EXPECT_EQ(version + "|" + distro, "6.18.44-fc-v657|GCC");
  utsname u{};
  ASSERT_EQ(uname(&u), 0);
  Util::getLinuxVersion(version, distro);
  EXPECT_EQ(version, u.release);
  EXPECT_EQ(thrownBy([&] { Util::getLinuxVersion(version, distro, t / "no"); }),
            "Could not open /proc/version.  Error: " + std::to_string(ENOENT));
}

TEST(UtilLinuxVersion, BannerText) {
  std::string version = "old", distro = "old";
  Util::parseLinuxVersion("Linux version 6.1.0 (b@h) (gcc (Debian 12.2.0-14) 12.2.0) #1", version,
                          distro);
  EXPECT_EQ(version + "|" + distro, "6.1.0|Debian 12.2.0-14");
  // The text ends at a NUL, as the file's did.
  Util::parseLinuxVersion(std::string("Linux version 5.0\0 (a) (b) (c)", 30), version, distro);
  EXPECT_EQ(version + "|" + distro, "5.0|*nix");
  Util::parseLinuxVersion("", version, distro);
  EXPECT_EQ(version + "|" + distro, "|*nix");
}

TEST(UtilNet, IsValidIPIsABitSubsetTestAndFormatEthAddr) {
  // Refused whenever every bit of the address lies within one of the masks.
  for (unsigned long refused : {0x00000000ul, 0x7F000001ul, 0x00FFFFFFul, 0x00000001ul,
                                0x01000000ul, 0x7E000001ul, 0x0A000001ul, 0x7F000000ul}) {
    EXPECT_EQ(Util::isValidIP(refused), 0) << std::hex << refused;
  }
  for (unsigned long passed : {0x0A000002ul, 0x7F000101ul, 0x7F000002ul, 0x80000000ul,
                               0xC0000201ul, 0x01000100ul, 0xFFFFFFFFul}) {
    EXPECT_EQ(Util::isValidIP(passed), 1) << std::hex << passed;
  }

  const unsigned char mac[6] = {0x02, 0xfc, 0x00, 0xab, 0x0f, 0xff};
  char out[20];
  std::memset(out, '#', sizeof out);
  Util::formatEthAddr(mac, out);
  EXPECT_EQ(std::string(out, 19), std::string("02:fc:00:ab:0f:ff\0#", 19));
  Util::formatEthAddr(nullptr, out);
  Util::formatEthAddr(mac, nullptr);
  EXPECT_EQ(out[0], '0');
}
