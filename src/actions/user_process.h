// Starts a program in the console user's name: a new session, the user's
// groups, group and user set before exec, an environment of its own. Every
// string is prepared before the fork; the child makes system calls only.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

struct UserProcess {
  std::string program;  // an absolute path
  std::vector<std::string> argv;
  std::vector<std::string> env;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;  // supplementary groups: the user's own, never root's
  // Truncated and written by the child, not followed if it is a link; the
  // lines are written before the session, group and user are changed.
  std::string logPath;
  std::vector<std::string> logLines;
  std::string launchFailure;  // written when exec fails, then " Error: N"
  // The child stays root and execs the service manager's client, which
  // gives the program the user's ids itself (see throughManager).
  bool viaManager = false;

  // The user's groups and home from the password database, and the
  // environment a desktop program of theirs expects; nullopt for an
  // unknown or root user.
  static std::optional<UserProcess> forUser(const std::string& name, uid_t uid, gid_t gid,
                                            bool withDisplay);

  // The program's path found on PATH; empty when it is nowhere.
  static std::string findProgram(const std::string& name, const std::string& path);

  // systemd-run's path where systemd runs (systemdMarker exists) and
  // systemd-run is on the search path; empty otherwise.
  static std::string transientUnitClient(const std::string& systemdMarker,
                                         const std::string& searchPath);

  // "varlo-KIND-PID-N": a transient unit's name, unique within this agent's
  // run and apart from any other agent's.
  static std::string transientUnitName(const std::string& kind);

  // This program started by the service manager as a transient unit of its
  // own (systemd-run as root, the user's ids and environment as the unit's):
  // outside the agent's service, so neither the service's sandbox nor its
  // restart reaches what the user runs.
  UserProcess throughManager(const std::string& systemdRun, const std::string& unit) const;

  // Forks and execs; the child's pid, or -1. With execError, waits only
  // until the exec has happened and says whether it failed (its errno).
  pid_t start(int* execError = nullptr) const;
};
