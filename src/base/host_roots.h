// Where the collectors read the host: every one takes these roots, so that
// tests can hand it a fixture tree copied from a real machine instead.
#pragma once

#include <string>

#include "base/host_paths.h"

struct HostRoots {
  std::string proc = host_paths::kProcRoot;
  std::string sys = host_paths::kSysRoot;
  std::string etc = host_paths::kEtcRoot;
  std::string dpkg = host_paths::kDpkgRoot;

  std::string procPath(const std::string& rel) const { return proc + rel; }
  std::string sysPath(const std::string& rel) const { return sys + rel; }
};
