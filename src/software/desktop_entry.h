// The keys of a desktop entry file that the control-panel list needs: the
// "[Desktop Entry]" group's unlocalised Name, its Categories and Hidden.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct DesktopEntry {
  bool hasGroup = false;  // a "[Desktop Entry]" group was found
  std::string name;       // escapes (\s \n \t \r \\) resolved
  std::vector<std::string> categories;
  bool hidden = false;  // Hidden=true: the entry counts as deleted

  bool inCategory(std::string_view category) const;

  // Never fails: keys outside the group, comments and lines that are
  // neither are passed over.
  static DesktopEntry parse(std::string_view text);
};
