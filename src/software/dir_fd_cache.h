// stat() of many paths that share a few folders, as a package's file list
// names them: each folder is looked up once and kept open, so a path costs
// the look-up of its last name only.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <list>
#include <string>
#include <utility>

#include "base/unique_fd.h"

class DirFdCache {
 public:
  explicit DirFdCache(std::size_t capacity = 64) : capacity_(capacity) {}

  // stat(path), links followed: 0, or -1 with errno set.
  int stat(const std::string& path, struct stat& out);

 private:
  std::size_t capacity_;
  // Most recently used first.
  std::list<std::pair<std::string, UniqueFd>> folders_;
};
