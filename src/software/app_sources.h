// Where the applications list is read on this host. Each is a default:
// tests hand CApps a fixture tree instead.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "base/host_paths.h"

struct AppSources {
  // Holds status and info/*.list.
  std::string dpkgRoot = host_paths::kDpkgRoot;
  // Joined before each path a package list or rpm names, before its stat.
  std::string filesRoot;
  // Searched for executables when no package manager answers.
  std::vector<std::string> exeDirs = {"/usr/bin", "/usr/sbin"};
  // Where rpm is looked for, as PATH.
  std::string searchPath = defaultSearchPath();
  std::string rpmName = "rpm";

  static std::string defaultSearchPath() {
    const char* path = std::getenv("PATH");
    return path != nullptr && *path != '\0' ? path : "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
  }
};
