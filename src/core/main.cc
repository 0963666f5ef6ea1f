// The agent's entry: foreground ("nodaemon") or daemon mode, the signal
// handling, and the wait for a quit signal.
#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "core/login_listener.h"
#include "core/run_loop.h"
#include "core/vlcore.h"
#include "core/vllog.h"

namespace {

std::atomic<bool> gbQuit{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the quit flag is set from a signal handler");

void sighandler(int sig) {
  switch (sig) {
    case SIGTERM:
    case SIGQUIT:
      gbQuit = true;
      RunLoop::post(RunLoop::kQuit);
      break;
    case SIGSEGV:
      // Logging here is not signal-safe; should it block on the log's lock,
      // the default SIGALRM still ends the process instead of hanging it.
      alarm(5);
      Log->LogMessage("Received SIGSEGV signal");
      exit(1);
    case SIGPIPE:
      RunLoop::post(RunLoop::kBrokenPipe);
      break;
    default:
      break;
  }
}

int runCore(LoginListener* listener) {
  int status;
  {
    VLCore core;
    if (core.init() != 0) {
      status = -1;
    } else {
      // The sockets are bound: a Type=notify service counts as started only
      // now. Without NOTIFY_SOCKET this does nothing.
      sd_notify(0, "READY=1");
      while (!gbQuit) RunLoop::run(listener);
      sd_notify(0, "STOPPING=1");
      status = 0;
    }
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  // Whatever the launcher left open beyond 0, 1 and 2 is not ours to hand
  // on to the children of the actions.
  close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);

  std::unique_ptr<LoginListener> listener = setLoginListener();

  if (mode == "nodaemon") {
    if (!RunLoop::prepare()) return -1;
    signal(SIGTERM, sighandler);
    signal(SIGQUIT, sighandler);
    return runCore(listener.get());
  }

  const pid_t child = fork();
  if (child < 0) {
    Log->LogMessage("Failed to fork daemon process! Quitting Application");
    return -1;
  }
  if (child > 0) return 0;

  umask(022);
  if (setsid() < 0) {
    Log->LogMessage("Failed to get valid session id from system.  Error: " +
                    std::to_string(errno));
    return -1;
  }
  if (chdir("/tmp") != 0) {
    Log->LogMessage("Failed to change working directory to tmp (/tmp).  Error: " +
                    std::to_string(errno));
    return -1;
  }
  // The launcher's descriptors go; /dev/null takes their numbers, so that
  // nothing opened later (the self-pipe, the log, a socket) lands on them
  // and a stray write to standard output cannot reach a session.
  close(0);
  close(1);
  close(2);
  const int devnull = open("/dev/null", O_RDWR);
  if (devnull == 0) {
    dup2(devnull, 1);
    dup2(devnull, 2);
  }
  if (!RunLoop::prepare()) return -1;
  signal(SIGTERM, sighandler);
  signal(SIGQUIT, sighandler);
  signal(SIGPIPE, sighandler);
  signal(SIGSEGV, sighandler);
  return runCore(listener.get());
}
