// Launch App (16): the application of the given index in the applications
// list file, opened with xdg-open in the console user's name.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "actions/user_process.h"
#include "base/host_paths.h"

class Session;

void launchApp(Session& session, std::uint16_t code);

// The path of line `index` of the list ("N PATH"), with the blank after the
// number kept; nullopt when no line has that index.
std::optional<std::string> findListedApp(const std::string& listText, unsigned long index);

struct LaunchSettings {
  std::string listPath = "/tmp/applist";
  std::string childLog = "/tmp/vllaunchapp.log";
  std::string searchPath = "/usr/local/bin:/usr/bin:/bin";
  std::chrono::milliseconds hold{10000};  // the worker stays busy after a launch
  // Where systemd runs, the application is started as a unit of its own.
  std::string systemdMarker = host_paths::kSystemdRunDir;
};

void launchApp(Session& session, std::uint32_t index, const LaunchSettings& settings);

// What launchApplication starts: xdg-open on path in the user's name, through
// systemd-run where systemd runs and systemd-run is on the search path;
// nullopt for root or an unknown user.
std::optional<UserProcess> launchProcess(std::string path, const std::string& user, uid_t uid,
                                         gid_t gid, const LaunchSettings& settings);

// Starts xdg-open on path (one leading blank dropped) in the user's name:
// the child's pid, or -1 for root, an unknown user or no child.
pid_t launchApplication(std::string path, const std::string& user, uid_t uid, gid_t gid,
                        const LaunchSettings& settings = {});
