// varloctl: the console-side tool that finds agents and sends them commands.
#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "varloctl/app.h"
#include "varloctl/ctl_error.h"
#include "varloctl/interrupt.h"

namespace {

void onInterrupt(int) { varloctl::Interrupt::raise(); }

// Ctrl-C only raises the flag; the waits see it (no SA_RESTART: poll()
// returns EINTR) and end the command with the connection closed. A second
// Ctrl-C gets the default action, in case something does not wait in poll().
void catchInterrupt() {
  struct sigaction sa {};
  sa.sa_handler = onInterrupt;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESETHAND;
  sigaction(SIGINT, &sa, nullptr);
}

// One line from the terminal. A Ctrl-C ends the read (no SA_RESTART).
std::optional<std::string> ask(const std::string& question) {
  std::cerr << question << std::flush;
  std::string line;
  for (char c;;) {
    const ssize_t n = ::read(STDIN_FILENO, &c, 1);
    if (n == 1 && c == '\n') return line;
    if (n == 1) {
      if (line.size() < 256) line += c;
      continue;
    }
    if (n < 0 && errno == EINTR && !varloctl::Interrupt::raised()) continue;
    std::cerr << '\n';
    return std::nullopt;
  }
}

}  // namespace

int main(int argc, char** argv) {
  catchInterrupt();
  const std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
  std::optional<std::string> envPassword;
  if (const char* p = std::getenv("VARLO_PASSWORD")) envPassword = p;
  const bool terminal = ::isatty(STDERR_FILENO) == 1;
  varloctl::App::Ask asker;
  if (terminal && ::isatty(STDIN_FILENO) == 1) asker = ask;
  const int status = varloctl::App::run(args, envPassword, std::cout, std::cerr, terminal, asker);
  if (status == varloctl::kOk && !(std::cout << std::flush)) {
    std::cerr << "varloctl: cannot write the result\n";
    return varloctl::kFailed;
  }
  return status;
}
