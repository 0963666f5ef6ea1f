// A throw-away host for end-to-end tests: private mount, network, UTS, IPC and
// PID namespaces, a tmpfs root with the host's /usr, /etc and /var/lib/dpkg
// read-only, fresh /proc and /sys, empty scratch folders; all of it dies with it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>

#include "test_support.h"

namespace sandbox {

struct Options {
  // Host paths made visible, read-only, at the same place inside.
  std::vector<std::string> readOnlyBinds;
  // The sandbox's own host name and /etc/hosts. Name look-ups never leave
  // the sandbox: it has no name server.
  std::string hostName = "varlo-sandbox";
  std::string hosts = "127.0.0.1\tlocalhost\n::1\tlocalhost\n";
  std::string resolvConf;
  // Recording stand-ins for /sbin/shutdown, dpkg, notify-send and xdg-open
  // (in tmpfs /usr/local/bin and /usr/local/sbin and an overlay on /usr/sbin):
  // each call leaves /tmp/standins/NAME.PID with its arguments, "--", its
  // uid, gid and groups, "--", and its environment sorted.
  bool standIns = false;
};

// A process started inside the sandbox. Its standard output and error are
// collected; the destructor kills it if it still runs.
class Process {
 public:
  Process() = default;
  Process(pid_t pid, int outFd);
  ~Process();
  Process(Process&& other) noexcept;
  Process& operator=(Process&& other) noexcept;

  bool running() const { return pid_ > 0 && !status_; }
  void signal(int sig) const;
  // The raw wait status, or nothing if it has not ended within the timeout.
  std::optional<int> wait(std::chrono::milliseconds timeout);
  // Exit code (or 128 + signal) once ended.
  std::optional<int> exitCode() const;
  // Everything written to standard output and error so far.
  std::string output();

 private:
  void reset();
  pid_t pid_ = -1;
  std::optional<int> status_;
  int outFd_ = -1;
  std::string output_;
};

class Sandbox {
 public:
  explicit Sandbox(Options options = {});
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // False when the namespaces or mounts were refused; error() says why.
  bool ok() const { return init_ > 0; }
  const std::string& error() const { return error_; }

  // Where a path inside the sandbox can be read and written from the test.
  std::string hostPath(const std::string& inside) const;

  // Starts argv[0] (an absolute path inside) as root in / with a plain
  // environment plus extraEnv. Whatever runs in the sandbox can neither set
  // the clock nor reboot: those capabilities leave its bounding set.
  Process spawn(const std::vector<std::string>& argv,
                const std::vector<std::string>& extraEnv = {}) const;

  // While it lives, sockets the calling thread (and threads it starts) opens
  // belong to the sandbox's network, so a test can be the agent's peer.
  class NetworkScope {
   public:
    explicit NetworkScope(const Sandbox& box);
    ~NetworkScope();
    NetworkScope(const NetworkScope&) = delete;
    NetworkScope& operator=(const NetworkScope&) = delete;
    bool entered() const { return entered_; }

   private:
    int home_ = -1;
    bool entered_ = false;
  };

  // Runs to the end; nothing when it outlives the timeout (it is then killed).
  struct Result {
    int exitCode;
    std::string output;
  };
  std::optional<Result> run(const std::vector<std::string>& argv,
                            std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

 private:
  pid_t init_ = -1;    // pid 1 of the sandbox, as the host sees it
  std::string stage_;  // host folder the root is mounted on (empty on the host)
  std::string error_;
};

// Polls cond every 10 ms until it holds or the timeout passes.
bool waitUntil(const std::function<bool()>& cond, std::chrono::milliseconds timeout);

// Whole file, or nothing if it cannot be read.
inline constexpr auto readFile = &test_support::slurp;

}  // namespace sandbox
