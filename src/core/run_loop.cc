#include "core/run_loop.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "core/login_listener.h"
#include "core/vllog.h"

namespace {
int pipeFds[2] = {-1, -1};
}

bool RunLoop::prepare() {
  if (pipeFds[0] >= 0) return true;
  return pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) == 0;
}

void RunLoop::post(Event event) {
  const int saved = errno;
  const char byte = event;
  if (pipeFds[1] >= 0) {
    [[maybe_unused]] ssize_t n = write(pipeFds[1], &byte, 1);
  }
  errno = saved;
}

void RunLoop::run(LoginListener* listener) {
  for (;;) {
    pollfd fds[2] = {{pipeFds[0], POLLIN, 0}, {listener ? listener->fd() : -1, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents & POLLIN) listener->dispatch();
    if (!(fds[0].revents & POLLIN)) continue;
    char events[64];
    const ssize_t n = read(pipeFds[0], events, sizeof events);
    bool quit = false;
    for (ssize_t i = 0; i < n; ++i) {
      if (events[i] == kBrokenPipe) {
        std::string line;
        VLLog::getLocalTimeString(line);
        Log->Log(line + ":   Received SIGPIPE signal");
      } else if (events[i] == kQuit && !quit) {
        Log->LogMessage("Received SIGTERM or SIGQUIT signal");
        quit = true;
      }
    }
    if (quit) return;
  }
}
