// A child process whose standard output comes back through a pipe: spawned
// without a shell, and killed and reaped if its owner lets go of it first,
// so no child outlives the command that started it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/unique_fd.h"

class ChildOutput {
 public:
  ChildOutput() = default;
  ~ChildOutput();
  ChildOutput(ChildOutput&& other) noexcept;
  ChildOutput& operator=(ChildOutput&& other) noexcept;
  ChildOutput(const ChildOutput&) = delete;
  ChildOutput& operator=(const ChildOutput&) = delete;

  // Runs program (a path) with argv (argv[0] included). 0, or the errno of
  // the pipe or the spawn.
  int spawn(const std::string& program, const std::vector<std::string>& argv);

  // The read end of the child's standard output (close-on-exec); the caller
  // may take it over.
  UniqueFd& output() { return output_; }

  // Closes the pipe and waits for the child; its wait status, or -1.
  int wait();

 private:
  void killAndReap();

  pid_t pid_ = -1;
  UniqueFd output_;
};
