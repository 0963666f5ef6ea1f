// Control panels (7): the settings tools of the desktop, that is the desktop
// entries in the XDG data folders' "applications" folders whose categories
// include "Settings". They carry no version.
#pragma once

#include <map>
#include <string>
#include <vector>

class CCtrlPanels {
 public:
  // dataDirs: the XDG data folders, most important first.
  explicit CCtrlPanels(std::vector<std::string> dataDirs = xdgDataDirs());

  // 0, or -1 when none of the applications folders could be read.
  int enumControls();
  void addControlPanel(const std::string& name, const std::string& version) {
    panels_[name] = version;
  }
  void resetPtr() { cursor_ = panels_.begin(); }
  // -1 at the end, else the pair under the cursor and 0.
  int getNextControl(std::string& name, std::string& version);

  const std::map<std::string, std::string>& panels() const { return panels_; }

  // $XDG_DATA_DIRS split on ':', or XDG's default when it is unset.
  static std::vector<std::string> xdgDataDirs();

  // Desktop entries bigger than this are read only this far (and logged).
  static constexpr std::size_t kMaxEntrySize = 256 * 1024;

 private:
  std::vector<std::string> dataDirs_;
  std::map<std::string, std::string> panels_;
  std::map<std::string, std::string>::iterator cursor_ = panels_.begin();
};
