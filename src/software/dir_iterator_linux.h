// CDirIterator over opendir/readdir. Symbolic links are listed as files, so a
// walk down dirs never follows one; no directory is treated as a package.
#pragma once

#include <memory>
#include <string>

#include "software/dir_iterator.h"
#include "base/host_paths.h"

class CDirIteratorLinux : public CDirIterator {
 public:
  CDirIteratorLinux() = default;

  int scanDirectory() override;
  std::unique_ptr<CDirIterator> recurseIntoDirectory(const std::string& dirPath) override;
  std::unique_ptr<CDirIterator> recurseIntoDirectory() override;
  // False, without scanning, when dirPath is missing or not a directory.
  bool openDirectory(const std::string& dirPath) override;
  void closeDirectory(std::unique_ptr<CDirIterator> other) override;
};

// Opens it on the users folder, whose sub-directories are the users' homes.
// 1 when opened; otherwise logs and returns 0.
int getUsersRootDir(CDirIteratorLinux& it,
                    const std::string& usersRoot = host_paths::kUsersRoot);
