// Fonts of a fixture configuration, read through fontconfig.
#include "software/font.h"

#include <filesystem>
#include <string>
#include <vector>

#include "test_support.h"

namespace fs = std::filesystem;

namespace {

const std::string kFonts = std::string(VARLO_FIXTURES) + "/software/fonts";

// A configuration that takes one font folder and keeps fontconfig's cache
// in the test's scratch folder. The folder is named by its full path: this
// fontconfig (2.14) leaks what it allocates for a prefix="relative" one.
std::string scratchConfig(const test_support::TempDir& dir, const std::string& fontDir) {
  const std::string conf = dir / "fonts.conf";
  test_support::spit(conf, "<?xml version=\"1.0\"?>\n<fontconfig>\n  <dir>" + fontDir +
                               "</dir>\n  <cachedir>" + (dir / "cache") +
                               "</cachedir>\n</fontconfig>\n");
  return conf;
}

std::vector<std::string> drain(CFont& fonts) {
  std::vector<std::string> out;
  fonts.resetPtr();
  for (std::string name; fonts.getNextFont(name) == 0;) out.push_back(name);
  return out;
}

std::size_t filesUnder(const std::string& dir) {
  std::size_t n = 0;
  for (const auto& e : fs::recursive_directory_iterator(dir)) n += e.is_regular_file() ? 1 : 0;
  return n;
}

}  // namespace

TEST(CFont, ListsEachFontFileByBaseNameSortedAndCachesInTheScratchFolder) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  const std::size_t fixtureFiles = filesUnder(kFonts);
  CFont fonts(scratchConfig(dir, kFonts + "/files"));
  ASSERT_EQ(fonts.enumFonts(), 0);
  // README is no font; the font in misc/ is found too.
  EXPECT_EQ(drain(fonts),
            (std::vector<std::string>{"tiny.bdf", "varlo-sans-bold.bdf", "varlo-sans.bdf"}));
  EXPECT_GT(filesUnder(dir / "cache"), 0u) << "fontconfig's cache went elsewhere";
  EXPECT_EQ(filesUnder(kFonts), fixtureFiles) << "something was written into the fixture";
}

TEST(CFont, CursorEndsWithMinusOneAndRestarts) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  CFont fonts(scratchConfig(dir, kFonts + "/files"));
  ASSERT_EQ(fonts.enumFonts(), 0);
  std::string name;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(fonts.getNextFont(name), 0);
  EXPECT_EQ(fonts.getNextFont(name), -1);
  EXPECT_EQ(name, "varlo-sans.bdf") << "the end must not touch the name";
  fonts.resetPtr();
  ASSERT_EQ(fonts.getNextFont(name), 0);
  EXPECT_EQ(name, "tiny.bdf");
}

TEST(CFont, AConfigurationThatCannotBeLoadedIsLoggedAndGivesNoFonts) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  const std::string missing = dir / "nowhere.conf";
  CFont fonts(missing);
  EXPECT_EQ(fonts.enumFonts(), -1);
  EXPECT_TRUE(fonts.fonts().empty());
  EXPECT_TRUE(log.contains("Failed to load the font configuration " + missing + "."));
}

TEST(CFont, AFolderWithoutFontsGivesAnEmptyList) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  fs::create_directories(dir / "empty");
  CFont fonts(scratchConfig(dir, dir / "empty"));
  EXPECT_EQ(fonts.enumFonts(), 0);
  EXPECT_TRUE(fonts.fonts().empty());
}
