#include "software/child_output.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

extern char** environ;

ChildOutput::~ChildOutput() { killAndReap(); }

ChildOutput::ChildOutput(ChildOutput&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), output_(std::move(other.output_)) {}

ChildOutput& ChildOutput::operator=(ChildOutput&& other) noexcept {
  if (this != &other) {
    killAndReap();
    pid_ = std::exchange(other.pid_, -1);
    output_ = std::move(other.output_);
  }
  return *this;
}

int ChildOutput::spawn(const std::string& program, const std::vector<std::string>& argv) {
  killAndReap();
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return errno;
  UniqueFd readEnd(fds[0]);
  UniqueFd writeEnd(fds[1]);

  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // dup2 onto 1 clears close-on-exec there only; every other descriptor of
  // the agent stays closed in the child.
  posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
  // The child starts with no signal blocked and SIGPIPE at its default,
  // whatever the spawning thread had: closing the pipe early ends it.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, pipe;
  sigemptyset(&none);
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &pipe);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  const int error = ::posix_spawn(&pid, program.c_str(), &actions, &attr, args.data(), environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) return error;
  pid_ = pid;
  output_ = std::move(readEnd);
  return 0;
}

int ChildOutput::wait() {
  output_.reset();
  if (pid_ < 0) return -1;
  int status = 0;
  pid_t r;
  do r = ::waitpid(pid_, &status, 0);
  while (r < 0 && errno == EINTR);
  pid_ = -1;
  return r < 0 ? -1 : status;
}

void ChildOutput::killAndReap() {
  output_.reset();
  if (pid_ < 0) return;
  ::kill(pid_, SIGKILL);
  wait();
}
