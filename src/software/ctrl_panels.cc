#include "software/ctrl_panels.h"

#include <cstdlib>
#include <filesystem>
#include <set>
#include <system_error>

#include "base/host_paths.h"
#include "base/small_file.h"
#include "core/vllog.h"
#include "software/desktop_entry.h"

namespace fs = std::filesystem;

CCtrlPanels::CCtrlPanels(std::vector<std::string> dataDirs) : dataDirs_(std::move(dataDirs)) {}

std::vector<std::string> CCtrlPanels::xdgDataDirs() {
  const char* env = std::getenv("XDG_DATA_DIRS");
  const std::string list = env != nullptr && *env != '\0' ? env : host_paths::kXdgDataDirs;
  std::vector<std::string> dirs;
  std::size_t start = 0;
  while (start <= list.size()) {
    const auto colon = std::min(list.find(':', start), list.size());
    if (colon > start) dirs.push_back(list.substr(start, colon - start));
    start = colon + 1;
  }
  return dirs;
}

int CCtrlPanels::enumControls() {
  // A desktop entry's id is its path below "applications" with '/' as '-';
  // the first data folder that has an id hides the others' file of that id.
  std::set<std::string> seen;
  bool anyFolder = false;
  for (const std::string& dataDir : dataDirs_) {
    const fs::path apps = fs::path(dataDir) / "applications";
    std::error_code ec;
    fs::recursive_directory_iterator it(apps, fs::directory_options::skip_permission_denied, ec);
    if (ec) continue;
    anyFolder = true;
    for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
      if (ec) {
        Log->LogMessage("Failed to read the folder " + apps.string() + ": " + ec.message());
        break;
      }
      const fs::path& path = it->path();
      std::error_code typeEc;
      if (path.extension() != ".desktop" || !it->is_regular_file(typeEc)) continue;
      std::string id = path.lexically_relative(apps).string();
      for (char& c : id)
        if (c == '/') c = '-';
      if (!seen.insert(id).second) continue;

      const auto text = readSmallFile(path.string(), kMaxEntrySize + 1);
      if (!text) {
        Log->LogMessage("Unable to open file " + path.string());
        continue;
      }
      if (text->size() > kMaxEntrySize)
        Log->LogMessage("Desktop entry too long, read in part: " + path.string());
      const DesktopEntry entry =
          DesktopEntry::parse(std::string_view(*text).substr(0, kMaxEntrySize));
      if (entry.hidden || !entry.inCategory("Settings")) continue;
      if (entry.name.empty()) {
        Log->LogMessage("Desktop entry without a name: " + path.string());
        continue;
      }
      addControlPanel(entry.name, "");
    }
  }
  resetPtr();
  if (!anyFolder) {
    Log->LogMessage("Failed to find an applications folder.");
    return -1;
  }
  return 0;
}

int CCtrlPanels::getNextControl(std::string& name, std::string& version) {
  if (cursor_ == panels_.end()) return -1;
  name = cursor_->first;
  version = cursor_->second;
  ++cursor_;
  return 0;
}
