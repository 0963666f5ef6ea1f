// The agent's own update: the archive received as "Varlo.pkg.tar.gz" is
// unpacked and its package installed by a detached child that outlives the
// agent it replaces (dpkg where dpkg is, else rpm). Where systemd runs, the
// installer runs as a transient unit of its own, so that the package's
// restart of the agent's service cannot stop it half way.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/host_paths.h"

struct InstallSettings {
  std::string log = "/tmp/vlinstall.log";
  std::string workDir = "/tmp";
  std::string shell = "/bin/sh";
  std::string searchPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
  std::string systemdMarker = host_paths::kSystemdRunDir;
};

// The installer's command line for the unpacked package folder; empty when
// neither dpkg nor rpm is on the search path. As a transient unit, its output
// is appended to outputLog when one is given (the child's own output goes to
// the log through its descriptors).
std::vector<std::string> installerCommand(const std::string& packagePath,
                                          const InstallSettings& settings,
                                          const std::string& outputLog = {});

// Starts the child and returns its pid (or -1); the worker does not wait.
pid_t replaceVL(const std::string& folder, const std::string& fileName,
                const InstallSettings& settings = {});
