// Kernel modules of a fixture proc and sys tree, and the library helpers.
#include "software/extensions.h"
#include "software/extensions_handler.h"

#include <map>

#include "test_support.h"

const std::string kSoftware = std::string(VARLO_FIXTURES) + "/software";

TEST(CExtensions, LoadedModulesWithTheirVersionsInBatchesThatKeepStaleBytes) {
  test_support::LogCapture log;
  CExtensions ext(HostRoots{kSoftware + "/proc", kSoftware + "/sys"});
  test_support::BlockRecorder rec;
  ASSERT_EQ(sendExtensionList(ext, rec.sink(), [] { return true; }, -1), 0);
  // bridge is listed twice; stp's folder has no version; lonely is alone on a line.
  EXPECT_EQ(ext.extensions(), (std::map<std::string, std::string>{
                                  {"bridge", "2.3"}, {"eeprom_93cx6", "1.0"}, {"llc", ""},
                                  {"ip6_udp_tunnel", ""}, {"lonely", ""}, {"stp", ""},
                                  {"nvidia_uvm", "555.42.06"}, {"tcp_cubic", "2.3"},
                                  {"udp_tunnel", ""}, {"virtio_pci", "1"}, {"vsock", "1.0.2.0-k"},
                                  {"vxlan", "0.1"}}));
  EXPECT_EQ(log.messages().size(), 2u);  // blank lines are not worth a message
  EXPECT_TRUE(log.contains("Skipping a line of " + kSoftware +
                           "/proc/modules without a module name: line 13"));  // "../../../etc"
  // Unlike fonts, slots keep earlier bytes: "vsock" over "bridge", "vxlan" over "eeprom_93cx6".
  ASSERT_EQ(rec.blocks.size(), 4u);
  EXPECT_EQ(rec.blocks[2], test_support::listHeader(8, 1, 2));
  EXPECT_EQ(std::string(rec.blocks[3].begin(), rec.blocks[3].begin() + 7), "\5vsocke");
  EXPECT_EQ(std::string(rec.blocks[3].begin() + 48, rec.blocks[3].begin() + 61), "\5vxlanm_93cx6");
  // A kernel without modules: an empty list, not worth a message either.
  CExtensions none(HostRoots{"/nonexistent", "/nonexistent"});
  EXPECT_EQ(none.enumKernelExtensions(), 0);
  EXPECT_TRUE(none.extensions().empty());
  EXPECT_EQ(log.messages().size(), 2u);
}

TEST(CExtensions, ParseNameCutsLibAndTakesTheVersionFourPastTheSuffix) {
  const std::string cases[][3] = {
      {"libz.1.2.dylib", "z.1.2", "ib"},  // made for ".so.": "ib" of ".dylib" stays
      {"libfoo.so.1.2.3", "foo", "1.2.3"},
      {"libx.so.", "x", "0"},    // nothing four past the suffix
      {"lib.dylib", "", "ib"},   // nothing between "lib" and the suffix
      {"li.dylib", "li", "ib"},  // not "lib"
      {"libq", "q", "0"},        // no suffix: a position past the end is the end
  };
  for (const auto& [file, name, version] : cases) {
    std::string n = "stale", v = "stale";
    CExtensions::parseName(file, std::min(file.find(".dylib"), file.find(".so")), n, v);
    EXPECT_EQ(n + "|" + v, name + "|" + version) << file;
  }
}

TEST(CExtensions, ExtraLibPathsTakeAbsoluteWordsAndOnlyLogIncludes) {
  test_support::LogCapture log;
  CExtensions ext(HostRoots{}, kSoftware + "/lib");
  std::map<std::string, bool> paths{{"/lib", true}};
  ext.findExtraLibPaths(paths);
  EXPECT_EQ(paths, (std::map<std::string, bool>{
                       {"/lib", true}, {"/missing/lib", true}, {"/opt/extra/lib", true}}));
  const auto m = log.messages();
  ASSERT_EQ(m.size(), 3u);
  EXPECT_EQ(m[1], "Found include line.  Wants to include:");
  EXPECT_EQ(m[2], "/etc/ld.so.conf.d/*.conf");
}
