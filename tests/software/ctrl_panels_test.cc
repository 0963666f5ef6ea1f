// Desktop entries, and the settings tools among those of XDG data folders.
#include "software/ctrl_panels.h"
#include "software/desktop_entry.h"

#include <tuple>

#include "test_support.h"

TEST(DesktopEntry, ReadsNameCategoriesAndHiddenOfTheEntryGroupOnly) {
  const std::tuple<const char*, bool, std::string, std::vector<std::string>, bool> cases[] = {
      // text, has the group, name, categories, hidden; a localised name is not the name
      {"[Desktop Entry]\r\nName[de]=B\r\n Name = A \r\nCategories = X ; Settings;;\r\n", true, "A",
       {"X", "Settings"}, false},
      {"[Desktop Entry]\nName=Tab\\tNew\\nLine\\sBack\\\\slash\\q\nCategories=One\\;Two;Three\n",
       true, "Tab\tNew\nLine Back\\slash\\q", {"One;Two", "Three"}, false},
      // The keys of an action group are not the entry's.
      {"[Desktop Entry]\nName=A\n[Desktop Action x]\nName=B\nCategories=Settings;\n", true, "A", {},
       false},
      {"Name=A\n[Other]\nCategories=Settings;\n", false, "", {}, false},
      {"[Desktop Entry]\n# Name=Comment\nHidden=true\nName=Z", true, "Z", {}, true},
      {"[Desktop Entry]\nHidden=True\nName=\\", true, "\\", {}, false},  // only "true" hides
  };
  for (const auto& [text, hasGroup, name, categories, hidden] : cases) {
    const DesktopEntry e = DesktopEntry::parse(text);
    EXPECT_EQ(std::tie(e.hasGroup, e.name, e.categories, e.hidden),
              std::tie(hasGroup, name, categories, hidden)) << text;
  }
}

TEST(CCtrlPanels, TheFirstFolderWithAnEntryIdHidesTheOthersFile) {
  test_support::LogCapture log;
  const std::string xdg = std::string(VARLO_FIXTURES) + "/software/xdg";
  CCtrlPanels panels({xdg + "/local", xdg + "/share", xdg + "/missing"});
  ASSERT_EQ(panels.enumControls(), 0);
  // local/network.desktop hides share's file of that id, named "Network (system copy)".
  EXPECT_EQ(panels.panels().count("Network"), 1u);
  EXPECT_EQ(panels.panels().count("Network (system copy)"), 0u);
  EXPECT_EQ(panels.panels().size(), 6u);
}
