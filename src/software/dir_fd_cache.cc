#include "software/dir_fd_cache.h"

#include <fcntl.h>

int DirFdCache::stat(const std::string& path, struct stat& out) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash + 1 == path.size()) return ::stat(path.c_str(), &out);
  const std::string folder = slash == 0 ? "/" : path.substr(0, slash);
  const char* name = path.c_str() + slash + 1;

  auto it = folders_.begin();
  while (it != folders_.end() && it->first != folder) ++it;
  if (it == folders_.end()) {
    UniqueFd fd(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    // A folder that cannot be opened answers as the whole path would.
    if (!fd.valid()) return ::stat(path.c_str(), &out);
    folders_.emplace_front(folder, std::move(fd));
    if (folders_.size() > capacity_) folders_.pop_back();
  } else if (it != folders_.begin()) {
    folders_.splice(folders_.begin(), folders_, it);
  }
  return ::fstatat(folders_.front().second.get(), name, &out, 0);
}
