#include "software/services.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <sstream>

#include "base/dir_handle.h"
#include "base/small_file.h"
#include "base/unique_fd.h"
#include "base/util.h"
#include "core/vllog.h"
#include "software/init_script.h"
#include "software/systemd_units.h"

extern char** environ;

CServices::CServices(HostRoots roots, std::string initDir, std::string systemdMarker,
                     std::string busAddress)
    : roots_(std::move(roots)),
      initDir_(std::move(initDir)),
      systemdMarker_(std::move(systemdMarker)),
      busAddress_(std::move(busAddress)) {}

int CServices::enumServices() {
  const int result = enumServicesAlternative(initDir_);
  std::error_code ec;
  if (std::filesystem::is_directory(systemdMarker_, ec)) {
    CSystemdUnits units(busAddress_);
    units.enumUnits(services_);
  }
  resetPtr();
  return result;
}

int CServices::enumServicesAlternative(const std::string& initDir) {
  DIR* raw = nullptr;
  try {
    raw = Util::openDir(initDir);
  } catch (const std::string& message) {
    Log->LogMessage(message);
    return -1;
  }
  {
    DirHandle dir(raw);
    std::string name;
    while (Util::getNextFile(dir.get(), name) == 0) {
      if (name == "." || name == "..") continue;
      const std::string path = initDir + "/" + name;
      const auto text = readSmallFile(path, kMaxScriptSize);
      if (!text) {
        Log->LogMessage("Unable to open file " + path);
        continue;
      }
      std::string service;
      switch (CInitScript::serviceOf(*text, service)) {
        case CInitScript::Verdict::kService:
          services_[service] = "Unknown";
          break;
        case CInitScript::Verdict::kVariable:
          Log->LogMessage("Could not add service because of variable substition in name");
          break;
        case CInitScript::Verdict::kNoName:
          break;
      }
    }
  }
  setServiceStatus();
  resetPtr();
  return 0;
}

void CServices::setServiceStatus() {
  if (services_.empty()) return;
  DIR* raw = nullptr;
  try {
    raw = Util::openDir(roots_.proc);
  } catch (const std::string& message) {
    Log->LogMessage(message);
    return;
  }
  DirHandle dir(raw);
  std::string name;
  while (Util::getNextFile(dir.get(), name) == 0) {
    if (name.empty() || !std::all_of(name.begin(), name.end(),
                                     [](unsigned char c) { return std::isdigit(c) != 0; }))
      continue;
    const std::string path = roots_.proc + "/" + name + "/stat";
    const auto text = readSmallFile(path, 4096);
    if (!text) {
      Log->LogMessage("Unable to open file " + path);
      continue;
    }
    // "PID (COMM) ...": a command name with a blank in it is cut there.
    std::istringstream words(*text);
    std::string pid, comm;
    if (!(words >> pid >> comm) || comm.size() < 2) continue;
    const auto it = services_.find(comm.substr(1, comm.size() - 2));
    if (it != services_.end()) it->second = "Running";
  }
}

namespace {

struct SpawnActions {
  posix_spawn_file_actions_t actions;
  SpawnActions() { posix_spawn_file_actions_init(&actions); }
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions); }
};

struct SpawnAttr {
  posix_spawnattr_t attr;
  SpawnAttr() { posix_spawnattr_init(&attr); }
  ~SpawnAttr() { posix_spawnattr_destroy(&attr); }
};

// Waits for the child until the deadline, then kills its process group.
// Returns its wait status; *killed tells whether it had to be stopped.
int reapBy(pid_t pid, std::chrono::steady_clock::time_point deadline, bool* killed) {
  int status = 0;
  *killed = false;
  for (;;) {
    const pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return status;
    if (r < 0 && errno != EINTR) return status;
    if (std::chrono::steady_clock::now() >= deadline) break;
    usleep(5000);
  }
  *killed = true;
  kill(-pid, SIGKILL);
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

}  // namespace

void CServices::runStatusCmd(std::string name) {
  services_[name] = "Unknown";
  const std::string script = initDir_ + "/" + name;

  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    Log->LogMessage("Unable to run status command for service: " + name);
    return;
  }
  UniqueFd readEnd(fds[0]);
  UniqueFd writeEnd(fds[1]);

  SpawnActions fa;
  posix_spawn_file_actions_adddup2(&fa.actions, writeEnd.get(), STDOUT_FILENO);
  SpawnAttr sa;
  // Its own process group, so that a status command that hangs goes with
  // whatever it started; default signals, whatever the worker blocks.
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setpgroup(&sa.attr, 0);
  posix_spawnattr_setsigmask(&sa.attr, &none);
  posix_spawnattr_setsigdefault(&sa.attr, &defaults);
  posix_spawnattr_setflags(&sa.attr,
                           POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  // The script's path goes in as $0, never into the command text, so no
  // name is ever parsed by the shell.
  const char* argv[] = {"sh", "-c", "\"$0\" status", script.c_str(), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, "/bin/sh", &fa.actions, &sa.attr, const_cast<char* const*>(argv),
                  environ) != 0) {
    Log->LogMessage("Unable to run status command for service: " + name);
    return;
  }
  writeEnd.reset();

  std::string output;
  bool stoppedEarly = false;
  const auto deadline = std::chrono::steady_clock::now() + statusTimeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      stoppedEarly = true;
      break;
    }
    pollfd p{readEnd.get(), POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      stoppedEarly = ready == 0;
      break;
    }
    char piece[399];
    const ssize_t n = read(readEnd.get(), piece, sizeof piece);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    output.append(piece, static_cast<std::size_t>(std::min<std::size_t>(
                             static_cast<std::size_t>(n), kMaxStatusOutput - output.size())));
    if (output.size() >= kMaxStatusOutput) {
      stoppedEarly = true;
      break;
    }
  }
  readEnd.reset();
  bool killed = false;
  const int status =
      reapBy(pid, stoppedEarly ? std::chrono::steady_clock::now() : deadline, &killed);
  if (killed) {
    Log->LogMessage("Status command for service " + name + " did not finish; stopped it");
    return;
  }
  if (output.empty()) return;

  std::transform(output.begin(), output.end(), output.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  std::string& state = services_[name];
  if (output.find("running") != std::string::npos) {
    state = "Running";
  } else if (output.find("stopped") != std::string::npos) {
    state = "Stopped";
  } else if (WIFEXITED(status)) {
    const int code = WEXITSTATUS(status);
    if (code == 0) state = "Running";
    else if (code >= 1 && code <= 3) state = "Stopped";
  }
}

int CServices::getNextService(std::string& name, std::string& status) {
  if (cursor_ == services_.end()) return -1;
  name = cursor_->first;
  status = cursor_->second;
  ++cursor_;
  return 0;
}
