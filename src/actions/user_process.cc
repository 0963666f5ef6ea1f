#include "actions/user_process.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "actions/child_log.h"
#include "base/unique_fd.h"

namespace {

using child_log::put;
using child_log::putLine;

constexpr const char* kUserPath = "/usr/local/bin:/usr/bin:/bin";
constexpr const char* kManagerPath = "/usr/sbin:/usr/bin:/sbin:/bin";

}  // namespace

std::optional<UserProcess> UserProcess::forUser(const std::string& name, uid_t uid, gid_t gid,
                                                bool withDisplay) {
  if (uid == 0 || name.empty()) return std::nullopt;
  passwd pw{};
  passwd* found = nullptr;
  std::vector<char> buf(16384);
  if (getpwnam_r(name.c_str(), &pw, buf.data(), buf.size(), &found) != 0 || found == nullptr)
    return std::nullopt;
  UserProcess p;
  p.uid = uid;
  p.gid = gid;
  int count = 64;
  p.groups.resize(static_cast<std::size_t>(count));
  if (getgrouplist(name.c_str(), gid, p.groups.data(), &count) < 0) {
    p.groups.resize(static_cast<std::size_t>(count));
    if (getgrouplist(name.c_str(), gid, p.groups.data(), &count) < 0) count = 0;
  }
  p.groups.resize(static_cast<std::size_t>(count));
  std::erase(p.groups, gid_t{0});  // never root's group
  const std::string runtime = "/run/user/" + std::to_string(uid);
  p.env = {"HOME=" + std::string(pw.pw_dir), "XDG_RUNTIME_DIR=" + runtime,
           "DBUS_SESSION_BUS_ADDRESS=unix:path=" + runtime + "/bus", std::string("PATH=") + kUserPath};
  if (withDisplay) p.env.push_back("DISPLAY=:0");
  return p;
}

std::string UserProcess::findProgram(const std::string& name, const std::string& path) {
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find(':', start);
    if (end == std::string::npos) end = path.size();
    const std::string dir = path.substr(start, end - start);
    start = end + 1;
    if (dir.empty() || dir[0] != '/') continue;
    const std::string candidate = dir + "/" + name;
    struct stat st {};
    if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 0111) != 0)
      return candidate;
  }
  return {};
}

std::string UserProcess::transientUnitClient(const std::string& systemdMarker,
                                             const std::string& searchPath) {
  struct stat st {};
  if (::stat(systemdMarker.c_str(), &st) != 0) return {};
  return findProgram("systemd-run", searchPath);
}

std::string UserProcess::transientUnitName(const std::string& kind) {
  static std::atomic<unsigned> units{0};
  return "varlo-" + kind + "-" + std::to_string(::getpid()) + "-" + std::to_string(++units);
}

UserProcess UserProcess::throughManager(const std::string& systemdRun, const std::string& unit) const {
  UserProcess p = *this;
  p.program = systemdRun;
  p.argv = {"systemd-run", "--unit=" + unit, "--collect", "--quiet", "--no-block",
            "--uid=" + std::to_string(uid), "--gid=" + std::to_string(gid),
            // xdg-open hands the file to an application and exits: the unit
            // lasts as long as anything it started.
            "--property=ExitType=cgroup"};
  for (const auto& e : env) p.argv.push_back("--setenv=" + e);
  p.argv.push_back("--");
  p.argv.push_back(program);
  if (!argv.empty()) p.argv.insert(p.argv.end(), argv.begin() + 1, argv.end());
  p.env = {std::string("PATH=") + kManagerPath};
  p.viaManager = true;
  return p;
}

pid_t UserProcess::start(int* execError) const {
  std::vector<char*> args, envp;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);

  int report[2] = {-1, -1};
  if (execError != nullptr && ::pipe2(report, O_CLOEXEC) != 0) return -1;
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int log = logPath.empty()
                        ? -1
                        : ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    for (const auto& line : logLines) {
      put(log, line.c_str());
      put(log, "\n");
    }
    if (::setsid() < 0) {
      putLine(log, "Launch App: failed to get valid session id from system.  Error: ", errno);
      ::_exit(255);
    }
    if (!viaManager &&
        (::setgroups(groups.size(), groups.data()) != 0 || ::setgid(gid) != 0)) {
      putLine(log, "Failed to change group id to ", static_cast<long>(gid));
      ::_exit(255);
    }
    if (!viaManager && ::setuid(uid) != 0) {
      putLine(log, "Failed to change user id to ", static_cast<long>(uid));
      ::_exit(255);
    }
    ::execve(program.c_str(), args.data(), envp.data());
    const int error = errno;
    put(log, launchFailure.c_str());
    putLine(log, " Error: ", error);
    if (report[1] >= 0) (void)!::write(report[1], &error, sizeof error);
    ::_exit(255);
  }
  if (execError != nullptr) {
    UniqueFd readEnd(report[0]);
    ::close(report[1]);
    *execError = 0;
    if (pid > 0) {
      int error = 0;
      ssize_t n;
      do n = ::read(readEnd.get(), &error, sizeof error);
      while (n < 0 && errno == EINTR);
      if (n == sizeof error) *execError = error;
    }
  }
  return pid;
}
