#include "actions/shutdown_handler.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "session/session.h"
#include "varlo/action_records.h"
#include "varlo/commands.h"

extern char** environ;

std::string shutdownCommandLine(bool reboot) {
  return std::string("/sbin/shutdown ") + (reboot ? "-r" : "-h") +
         " now &> /tmp/vlshutdown.log &";
}

int runShell(const std::string& line) {
  const char* argv[] = {"bash", "-c", line.c_str(), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, "/bin/bash", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
    return -1;
  int status = 0;
  pid_t r;
  do r = waitpid(pid, &status, 0);
  while (r < 0 && errno == EINTR);
  if (r < 0) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void shutdownSystem(Session& session, bool reboot, unsigned realUid, const ShellRunner& shell) {
  if (realUid != 0) {
    const std::string text = "Varlo needs root privileges to shutdown system";
    session.log(text);
    session.SendData(varlo::varlo_shutdown::reply(false, text));
    return;
  }
  // The console hears of success before the machine starts going down.
  session.SendData(varlo::varlo_shutdown::reply(true));
  const int status = shell(shutdownCommandLine(reboot));
  if (status != 0) session.log("Failed to shutdown system.  Error: " + std::to_string(status));
}

void shutdownSystem(Session& session, std::uint16_t code) {
  if (!session.connected()) return;
  shutdownSystem(session, code == varlo::kRebootCommand, ::getuid(), &runShell);
}
