// Startup items (10): the services of the init scripts, marked "Running"
// when a process of that name runs, and where systemd is the init the
// service units of its manager with their state.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "base/host_paths.h"
#include "base/host_roots.h"

class CServices {
 public:
  // initDir: where runStatusCmd finds the scripts; systemdMarker: exists
  // only while systemd runs; busAddress: empty for the system bus.
  explicit CServices(HostRoots roots = {}, std::string initDir = host_paths::kInitScripts,
                     std::string systemdMarker = host_paths::kSystemdRunDir,
                     std::string busAddress = {});
  CServices(const CServices&) = delete;
  CServices& operator=(const CServices&) = delete;

  // The init scripts of initDir, then the systemd units where systemd runs
  // (a unit's state replaces a script's guess of the same name). 0 or -1.
  int enumServices();
  int enumServicesAlternative(const std::string& initDir);
  // Marks "Running" each service whose name a process of PROC carries.
  void setServiceStatus();
  // Asks the script itself: "INITDIR/name status". Slow (a child process
  // each); the command does not use it.
  void runStatusCmd(std::string name);

  void resetPtr() { cursor_ = services_.begin(); }
  // -1 at the end, else the pair under the cursor and 0.
  int getNextService(std::string& name, std::string& status);

  const std::map<std::string, std::string>& services() const { return services_; }

  // How long a status command may run, and how much of its output is read.
  std::chrono::milliseconds statusTimeout{10000};
  static constexpr std::size_t kMaxStatusOutput = 64 * 1024;
  static constexpr std::size_t kMaxScriptSize = 1024 * 1024;

 private:
  std::map<std::string, std::string> services_;
  std::map<std::string, std::string>::iterator cursor_ = services_.begin();

  HostRoots roots_;
  std::string initDir_;
  std::string systemdMarker_;
  std::string busAddress_;
};
