// Kernel modules of a fixture proc and sys tree, and the library helpers.
#include "software/extensions.h"

#include <map>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

const std::string kSoftware = std::string(VARLO_FIXTURES) + "/software";
using Map = std::map<std::string, std::string>;

Map drain(CExtensions& e) {
  Map out;
  e.resetPtr();
  for (std::string n, v; e.getNextLibrary(n, v) == 0;) out.emplace(n, v);
  return out;
}

}  // namespace

TEST(CExtensions, LoadedModulesWithTheVersionTheyDeclare) {
  test_support::LogCapture log;
  CExtensions ext(HostRoots{kSoftware + "/proc", kSoftware + "/sys"});
  ASSERT_EQ(ext.enumKernelExtensions(), 0);
  EXPECT_EQ(drain(ext), (Map{
                            {"bridge", "2.3"},  // listed twice, kept once
                            {"eeprom_93cx6", "1.0"},
                            {"ip6_udp_tunnel", ""},  // no version file
                            {"llc", ""},
                            {"lonely", ""},  // a name alone on its line
                            {"nvidia_uvm", "555.42.06"},
                            {"stp", ""},  // a module folder without version
                            {"tcp_cubic", "2.3"},
                            {"udp_tunnel", ""},
                            {"virtio_pci", "1"},
                            {"vsock", "1.0.2.0-k"},
                            {"vxlan", "0.1"},
                        }));
  EXPECT_TRUE(log.contains("Skipping a line of " + kSoftware +
                           "/proc/modules without a module name: line 13"));
  EXPECT_EQ(log.messages().size(), 2u) << "blank lines are not worth a message";
}

TEST(CExtensions, NoModuleListIsAnEmptyListNotAnError) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  CExtensions ext(HostRoots{dir.path, dir.path});
  EXPECT_EQ(ext.enumKernelExtensions(), 0);
  EXPECT_TRUE(drain(ext).empty());
  EXPECT_EQ(log.messages().size(), 1u);  // the log's own first line only
}

TEST(CExtensions, ParseNameCutsLibAndTakesTheVersionFourPastTheSuffix) {
  struct Case {
    std::string file;
    std::string name, version;
  };
  const Case cases[] = {
      {"libz.1.2.dylib", "z.1.2", "ib"},  // made for ".so.": "ib" of ".dylib" stays
      {"libfoo.so.1.2.3", "foo", "1.2.3"},
      {"Foo.dylib", "Foo", "ib"},
      {"libbar.dylib.2", "bar", "ib.2"},
      {"libc.so", "c", "0"},     // nothing four past the suffix
      {"libx.so.", "x", "0"},    // p + 4 == length
      {"lib.dylib", "", "ib"},   // nothing between "lib" and the suffix
      {"li.dylib", "li", "ib"},  // not "lib"
  };
  for (const Case& c : cases) {
    auto p = c.file.find(".dylib");
    if (p == std::string::npos) p = c.file.find(".so");
    std::string name = "stale", version = "stale";
    CExtensions::parseName(c.file, p, name, version);
    EXPECT_EQ(name, c.name) << c.file;
    EXPECT_EQ(version, c.version) << c.file;
  }
  // A position past the end is the end.
  std::string name, version;
  CExtensions::parseName("libq", 99, name, version);
  EXPECT_EQ(name + "|" + version, "q|0");
}

TEST(CExtensions, ExtraLibPathsTakeAbsoluteWordsAndOnlyLogIncludes) {
  test_support::LogCapture log;
  CExtensions ext(HostRoots{}, kSoftware + "/lib");
  std::map<std::string, bool> paths{{"/lib", true}};
  ext.findExtraLibPaths(paths);
  EXPECT_EQ(paths, (std::map<std::string, bool>{{"/lib", true},
                                                 {"/missing/lib", true},
                                                 {"/opt/extra/lib", true}}));
  const auto m = log.messages();
  ASSERT_EQ(m.size(), 3u);
  EXPECT_EQ(m[1], "Found include line.  Wants to include:");
  EXPECT_EQ(m[2], "/etc/ld.so.conf.d/*.conf");
}

TEST(CExtensions, MissingLdSoConfIsLoggedUnderItsOldName) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  CExtensions ext(HostRoots{}, dir.path);
  std::map<std::string, bool> paths;
  ext.findExtraLibPaths(paths);
  EXPECT_TRUE(paths.empty());
  EXPECT_TRUE(log.contains("Unable to open /etc/ld/so.conf"));
}

TEST(CExtensions, EnumLibrarysWalksTheTableAndTheExtraFolders) {
  test_support::LogCapture log;
  const std::string root = kSoftware + "/lib";
  CExtensions ext(HostRoots{}, root);
  ASSERT_EQ(ext.enumLibrarys(), 0);
  EXPECT_EQ(drain(ext), (Map{{"Foo", "ib"}, {"System.B", "ib"}, {"bar", "ib.2"}, {"z.1.2", "ib"}}));
  EXPECT_TRUE(log.contains("Error opening directory: " + root + "/usr/local/lib Error: 2"));
  EXPECT_TRUE(log.contains("Error opening directory: " + root + "/missing/lib Error: 2"));
}
