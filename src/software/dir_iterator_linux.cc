#include "software/dir_iterator_linux.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstring>

#include "base/dir_handle.h"
#include "core/vllog.h"

namespace {

std::string joinPath(const std::string& dir, const char* name) {
  if (!dir.empty() && dir.back() == '/') return dir + name;
  return dir + "/" + name;
}

}  // namespace

int CDirIteratorLinux::scanDirectory() {
  const DirHandle dir(opendir(path.c_str()));
  if (!dir) return -1;
  for (;;) {
    const struct dirent* entry = readdir(dir.get());
    // A read error ends the scan like the end does; what was read is kept.
    if (entry == nullptr) break;
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;

    const std::string full = joinPath(path, entry->d_name);
    bool isDirectory = entry->d_type == DT_DIR;
    if (entry->d_type == DT_UNKNOWN) {
      // Some file systems leave the type out; lstat so that a link stays a file.
      struct stat st{};
      if (lstat(full.c_str(), &st) != 0) continue;  // gone since readdir
      isDirectory = S_ISDIR(st.st_mode);
    }
    if (isDirectory) {
      addDir(full);
    } else {
      addFile(full);
    }
  }
  return 0;
}

std::unique_ptr<CDirIterator> CDirIteratorLinux::recurseIntoDirectory(const std::string& dirPath) {
  auto sub = std::make_unique<CDirIteratorLinux>();
  sub->openDirectory(dirPath);
  return sub;
}

std::unique_ptr<CDirIterator> CDirIteratorLinux::recurseIntoDirectory() {
  std::string dir;
  if (!getCurrentDirectory(dir)) return nullptr;
  return recurseIntoDirectory(dir);
}

bool CDirIteratorLinux::openDirectory(const std::string& dirPath) {
  struct stat st{};
  if (stat(dirPath.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  path = dirPath;
  scanDirectory();
  fileCursor = 0;
  dirCursor = 0;
  return true;
}

void CDirIteratorLinux::closeDirectory(std::unique_ptr<CDirIterator> other) {
  // Never destroy ourselves, even if handed a pointer that claims to own us.
  if (other.get() == this) static_cast<void>(other.release());
}

int getUsersRootDir(CDirIteratorLinux& it, const std::string& usersRoot) {
  if (it.openDirectory(usersRoot)) return 1;
  Log->LogMessage("Failed to open user directory.");
  return 0;
}
