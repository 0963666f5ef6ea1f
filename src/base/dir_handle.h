// An open directory stream, closed when it goes out of scope.
#pragma once

#include <dirent.h>

#include <memory>

struct DirCloser {
  void operator()(DIR* d) const {
    if (d != nullptr) closedir(d);
  }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;
