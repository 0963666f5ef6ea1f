// Launch App (16): the application of the given index in the applications
// list file, opened with xdg-open in the console user's name.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

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
};

void launchApp(Session& session, std::uint32_t index, const LaunchSettings& settings);

// Starts xdg-open on path (one leading blank dropped) in the user's name:
// the child's pid, or -1 for root, an unknown user or no child.
pid_t launchApplication(std::string path, const std::string& user, uid_t uid, gid_t gid,
                        const LaunchSettings& settings = {});
