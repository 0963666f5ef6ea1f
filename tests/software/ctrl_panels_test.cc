// Settings tools among the desktop entries of fixture XDG data folders.
#include "software/ctrl_panels.h"
#include "software/desktop_entry.h"

#include <cstdlib>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

const std::string kXdg = std::string(VARLO_FIXTURES) + "/software/xdg";

std::vector<std::string> names(CCtrlPanels& panels) {
  std::vector<std::string> out;
  panels.resetPtr();
  std::string name, version;
  while (panels.getNextControl(name, version) == 0) {
    EXPECT_EQ(version, "") << name;
    out.push_back(name);
  }
  return out;
}

}  // namespace

TEST(DesktopEntry, ReadsTheEntryGroupsNameCategoriesAndHidden) {
  struct Case {
    const char* text;
    bool hasGroup;
    std::string name;
    std::vector<std::string> categories;
    bool hidden;
  };
  const Case cases[] = {
      {"[Desktop Entry]\nName=A\nCategories=X;Settings;\n", true, "A", {"X", "Settings"}, false},
      // The localised names are not the name.
      {"[Desktop Entry]\nName[de]=B\nName=A\nName[fr]=C\n", true, "A", {}, false},
      {"[Desktop Entry]\r\n  Name = Spaced Out \r\nCategories = a ; b ;;\r\n", true, "Spaced Out",
       {"a", "b"}, false},
      {"[Desktop Entry]\nName=Tab\\tNew\\nLine\\sBack\\\\slash\\q\n", true,
       "Tab\tNew\nLine Back\\slash\\q", {}, false},
      {"[Desktop Entry]\nCategories=One\\;Two;Three\n", true, "", {"One;Two", "Three"}, false},
      // Keys of an action group are not the entry's.
      {"[Desktop Entry]\nName=A\n[Desktop Action x]\nName=B\nCategories=Settings;\n", true, "A", {},
       false},
      {"[Other]\nName=A\nCategories=Settings;\n", false, "", {}, false},
      {"Name=Before any group\n", false, "", {}, false},
      {"[Desktop Entry]\n# Name=Comment\nName\nHidden=true\nName=Z", true, "Z", {}, true},
      {"[Desktop Entry]\nHidden=True\n", true, "", {}, false},  // only "true" is true
      {"", false, "", {}, false},
      {"[Desktop Entry", false, "", {}, false},
      {"[Desktop Entry]\nName=\\", true, "\\", {}, false},
  };
  for (const Case& c : cases) {
    const DesktopEntry e = DesktopEntry::parse(c.text);
    EXPECT_EQ(e.hasGroup, c.hasGroup) << c.text;
    EXPECT_EQ(e.name, c.name) << c.text;
    EXPECT_EQ(e.categories, c.categories) << c.text;
    EXPECT_EQ(e.hidden, c.hidden) << c.text;
  }
}

TEST(CCtrlPanels, ListsTheSettingsEntriesOnceByNameWithTheFirstFolderWinning) {
  test_support::LogCapture log;
  CCtrlPanels panels({kXdg + "/local", kXdg + "/share", kXdg + "/missing"});
  ASSERT_EQ(panels.enumControls(), 0);
  EXPECT_EQ(names(panels), (std::vector<std::string>{
                               "Displays",                      // two files, one name
                               "Keyboard and Mouse\\Touchpad",  // escapes resolved
                               "Network",           // the local copy hides the system's
                               "Power Management",  // kde4/power.desktop
                               "Printers With A Very Long Name Beyond The Field",  // long lines
                               "Sound",
                           }));
  EXPECT_TRUE(log.contains("Desktop entry without a name: " + kXdg +
                           "/share/applications/no-name.desktop"));
}

TEST(CCtrlPanels, AnEntryLongerThanTheBoundIsReadInPartAndSaysSo) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  std::filesystem::create_directories(dir / "applications");
  const std::string path = dir / "applications/huge.desktop";
  test_support::spit(path, "[Desktop Entry]\nName=Early\nCategories=Settings;\n#" +
                               std::string(CCtrlPanels::kMaxEntrySize, 'x') + "\nName=Late\n");
  CCtrlPanels panels({dir.path});
  ASSERT_EQ(panels.enumControls(), 0);
  EXPECT_EQ(names(panels), std::vector<std::string>{"Early"});
  EXPECT_TRUE(log.contains("Desktop entry too long, read in part: " + path));
}

TEST(CCtrlPanels, NoApplicationsFolderAtAllIsLoggedAndEmpty) {
  test_support::LogCapture log;
  CCtrlPanels panels({kXdg + "/missing"});
  EXPECT_EQ(panels.enumControls(), -1);
  EXPECT_TRUE(panels.panels().empty());
  EXPECT_TRUE(log.contains("Failed to find an applications folder."));
}

TEST(CCtrlPanels, AddControlPanelKeepsTheLastVersionOfAName) {
  CCtrlPanels panels(std::vector<std::string>{});
  panels.addControlPanel("Pane", "1.0");
  panels.addControlPanel("Pane", "2.0");
  panels.addControlPanel("Another", "");
  panels.resetPtr();
  std::string n, v;
  ASSERT_EQ(panels.getNextControl(n, v), 0);
  EXPECT_EQ(n + "=" + v, "Another=");
  ASSERT_EQ(panels.getNextControl(n, v), 0);
  EXPECT_EQ(n + "=" + v, "Pane=2.0");
  EXPECT_EQ(panels.getNextControl(n, v), -1);
}

TEST(CCtrlPanels, DataFoldersComeFromTheEnvironmentOrTheDefault) {
  const char* saved = std::getenv("XDG_DATA_DIRS");
  const std::string keep = saved ? saved : "";
  setenv("XDG_DATA_DIRS", "/a::/b/c:", 1);
  EXPECT_EQ(CCtrlPanels::xdgDataDirs(), (std::vector<std::string>{"/a", "/b/c"}));
  unsetenv("XDG_DATA_DIRS");
  EXPECT_EQ(CCtrlPanels::xdgDataDirs(),
            (std::vector<std::string>{"/usr/local/share/", "/usr/share/"}));
  if (saved) setenv("XDG_DATA_DIRS", keep.c_str(), 1);
}
