#include "actions/package_installer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "actions/child_log.h"
#include "actions/user_process.h"
#include "base/unique_fd.h"

extern char** environ;

namespace {

using child_log::put;
using child_log::putLine;


std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (auto& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

}  // namespace

std::vector<std::string> installerCommand(const std::string& packagePath,
                                          const InstallSettings& settings,
                                          const std::string& outputLog) {
  std::vector<std::string> command;
  if (const std::string dpkg = UserProcess::findProgram("dpkg", settings.searchPath); !dpkg.empty()) {
    const std::string dpkgDeb = UserProcess::findProgram("dpkg-deb", settings.searchPath);
    if (dpkgDeb.empty()) {
      command = {dpkg, "--install", "--recursive", packagePath};
    } else {
      // Every package read whole first: dpkg stops and restarts the running
      // agent before it finds a damaged package's data cut short.
      command = {settings.shell, "-c",
                 "for p in \"$1\"/*.deb; do [ -e \"$p\" ] || continue; "
                 "\"$2\" --fsys-tarfile \"$p\" >/dev/null || "
                 "{ echo \"$p is damaged: nothing was installed\"; exit 1; }; done; "
                 "exec \"$0\" --install --recursive \"$1\"",
                 dpkg, packagePath, dpkgDeb};
    }
  } else if (const std::string rpm = UserProcess::findProgram("rpm", settings.searchPath);
             !rpm.empty()) {
    // The package files are known once the archive is unpacked.
    command = {settings.shell, "-c", "exec \"$0\" --upgrade --replacepkgs \"$1\"/*.rpm", rpm,
               packagePath};
  } else {
    return {};
  }
  const std::string systemdRun =
      UserProcess::transientUnitClient(settings.systemdMarker, settings.searchPath);
  if (!systemdRun.empty()) {
    // Its own unit: outside the agent's service, whose restart it survives.
    std::vector<std::string> unit = {systemdRun,
                                     "--unit=" + UserProcess::transientUnitName("update"),
                                     "--collect", "--quiet", "--no-block"};
    if (!outputLog.empty()) {
      unit.push_back("--property=StandardOutput=append:" + outputLog);
      unit.push_back("--property=StandardError=append:" + outputLog);
    }
    command.insert(command.begin(), unit.begin(), unit.end());
  }
  return command;
}

pid_t replaceVL(const std::string& folder, const std::string& fileName,
                const InstallSettings& settings) {
  // Everything the child needs, made before the fork.
  // A package left by an earlier update must not be installed with this one.
  std::vector<std::string> untar = {settings.shell, "-c",
                                    "rm -rf -- " + folder + "Varlo.pkg; tar -xzf " + folder + fileName};
  const std::string packagePath = (folder + "Varlo.pkg").substr(0, 200);
  // Opened here, before the fork, so that the unit the installer may become
  // appends to the very file the agent created: a regular file of root's in
  // a folder whose sticky bit keeps others from swapping it for a link.
  UniqueFd log(::open(settings.log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  struct stat logStat {};
  const bool logIsRoots = log.valid() && ::fstat(log.get(), &logStat) == 0 &&
                          S_ISREG(logStat.st_mode) && logStat.st_uid == 0;
  std::vector<std::string> installer =
      installerCommand(packagePath, settings, logIsRoots ? settings.log : std::string());
  const std::string located = "Package is located at: " + packagePath + "\n";
  std::vector<char*> untarArgs = pointers(untar);
  std::vector<char*> installerArgs = pointers(installer);

  const pid_t pid = ::fork();
  if (pid != 0) return pid;

  // What tar and the installer print goes to the log too (stdin stays).
  const int logFd = log.get();
  if (logFd >= 0) {
    ::dup2(logFd, STDOUT_FILENO);
    ::dup2(logFd, STDERR_FILENO);
  }
  if (::chdir(settings.workDir.c_str()) != 0) {
    // Unpacked into the folder the archive is in regardless: paths are whole.
  }
  int status = -1;
  const pid_t tar = ::fork();
  if (tar == 0) {
    ::execve(untarArgs[0], untarArgs.data(), environ);
    ::_exit(127);
  }
  if (tar > 0) {
    pid_t r;
    do r = ::waitpid(tar, &status, 0);
    while (r < 0 && errno == EINTR);
    status = r < 0 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  if (status < 0 || status == 127) {
    putLine(logFd, "Failed to untar archive.  Error: ", status);
    ::_exit(0);
  }
  put(logFd, located.c_str());
  if (::setsid() < 0) {
    putLine(logFd, "replaceVL: failed to get valid session id from system.  Error: ", errno);
    ::_exit(255);
  }
  if (installer.empty()) {
    putLine(logFd, "Unable to launch installer. Error: ", ENOENT);
    ::_exit(0);
  }
  ::execve(installerArgs[0], installerArgs.data(), environ);
  putLine(logFd, "Unable to launch installer. Error: ", errno);
  ::_exit(0);
}
