// Fonts of a fixture folder, read through fontconfig.
#include "software/font.h"

#include "test_support.h"

TEST(CFont, EachFontFileByBaseNameSortedWithTheCacheOutsideTheFixture) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  const std::string fixture = std::string(VARLO_FIXTURES) + "/software/fonts";
  const auto entries = [](const std::string& folder) {
    return std::distance(std::filesystem::recursive_directory_iterator(folder), {});
  };
  const auto fixtureEntries = entries(fixture);
  // The folder by its full path: fontconfig 2.14 leaks a prefix="relative" one.
  test_support::spit(dir / "fonts.conf", "<fontconfig><dir>" + fixture + "/files</dir><cachedir>" +
                                             dir / "cache" + "</cachedir></fontconfig>\n");
  CFont fonts(dir / "fonts.conf");
  ASSERT_EQ(fonts.enumFonts(), 0);
  // README is no font; misc/tiny.bdf is found too.
  EXPECT_EQ(fonts.fonts(),
            (std::vector<std::string>{"tiny.bdf", "varlo-sans-bold.bdf", "varlo-sans.bdf"}));
  EXPECT_GT(entries(dir / "cache"), 0) << "fontconfig's cache went elsewhere";
  EXPECT_EQ(entries(fixture), fixtureEntries) << "something was written into the fixture";
}
