#include "software/extensions.h"

#include <sstream>

#include "base/dir_handle.h"
#include "base/small_file.h"
#include "base/util.h"
#include "core/vllog.h"

const char* const CExtensions::libpaths[3] = {"/lib", "/usr/lib", "/usr/local/lib"};

namespace {

// The kernel names modules with these only; anything else would make the
// version path leave /sys/module.
bool isModuleName(const std::string& s) {
  if (s.empty() || s.size() > 255) return false;
  for (const char c : s)
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
          c == '-'))
      return false;
  return true;
}

std::string trimmed(const std::string& s) {
  const auto first = s.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

}  // namespace

int CExtensions::enumKernelExtensions() {
  const std::string path = roots_.procPath("/modules");
  const auto text = readSmallFile(path, kMaxModulesSize);
  if (!text) {
    resetPtr();
    return 0;
  }
  std::istringstream lines(*text);
  std::size_t lineNo = 0;
  for (std::string line; std::getline(lines, line);) {
    ++lineNo;
    // "name size refcount deps state address": only the name is wanted.
    std::istringstream words(line);
    std::string name;
    if (!(words >> name)) continue;
    if (!isModuleName(name)) {
      Log->LogMessage("Skipping a line of " + path + " without a module name: line " +
                      std::to_string(lineNo));
      continue;
    }
    const auto version = readFirstLine(roots_.sysPath("/module/" + name + "/version"), 256);
    extensions_[name] = version ? trimmed(*version) : std::string();
  }
  resetPtr();
  return 0;
}

int CExtensions::enumLibrarys() {
  std::map<std::string, bool> dirs;
  for (const char* p : libpaths) dirs[p] = true;
  findExtraLibPaths(dirs);
  for (const auto& [dir, wanted] : dirs) {
    DIR* raw = nullptr;
    try {
      raw = Util::openDir(libRoot_ + dir);
    } catch (const std::string& message) {
      Log->LogMessage(message);
      continue;
    }
    DirHandle handle(raw);
    std::string file;
    while (Util::getNextFile(handle.get(), file) == 0) {
      const auto p = file.find(".dylib");
      if (p == std::string::npos) continue;
      std::string name, version;
      parseName(file, p, name, version);
      extensions_[name] = version;
    }
  }
  resetPtr();
  return 0;
}

void CExtensions::findExtraLibPaths(std::map<std::string, bool>& paths) {
  const auto text = readSmallFile(libRoot_ + host_paths::kLdSoConf);
  if (!text) {
    // The message has always named the file this way; kept as it is.
    Log->LogMessage("Unable to open /etc/ld/so.conf");
    return;
  }
  std::istringstream words(*text);
  for (std::string word; words >> word;) {
    if (word == "include") {
      Log->LogMessage("Found include line.  Wants to include:");
      std::string included;
      if (words >> included) {
        Log->LogMessage(included);
        searchIncludePath(included, paths);
      }
    } else if (word[0] == '/') {
      paths[word] = true;
    }
  }
}

void CExtensions::parseName(const std::string& file, std::size_t pos, std::string& name,
                            std::string& version) {
  pos = std::min(pos, file.size());
  const std::size_t from = file.compare(0, 3, "lib") == 0 ? 3 : 0;
  name = pos > from ? file.substr(from, pos - from) : std::string();
  // Made for ".so.": a ".dylib" leaves "ib" of its own suffix as the version.
  version = pos + 4 < file.size() ? file.substr(pos + 4) : std::string("0");
}

void CExtensions::searchIncludePath(const std::string&, std::map<std::string, bool>&) {}

int CExtensions::getNextLibrary(std::string& name, std::string& version) {
  if (cursor_ == extensions_.end()) return -1;
  name = cursor_->first;
  version = cursor_->second;
  ++cursor_;
  return 0;
}
