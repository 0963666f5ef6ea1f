#include "sandbox/sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

extern char** environ;

namespace sandbox {
namespace {

std::string failure(const std::string& what) { return what + ": " + std::strerror(errno); }

bool mkdirs(const std::string& path, mode_t mode = 0755) {
  for (std::size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos != path.size() && path[pos] != '/') continue;
    const std::string prefix = path.substr(0, pos);
    if (mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// Everything below runs in the sandbox's pid 1 before it serves as reaper.
class RootBuilder {
 public:
  explicit RootBuilder(std::string root) : root_(std::move(root)) {}

  std::string build(const Options& options) {
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      return failure("make mounts private");
    if (mount("varlo-root", root_.c_str(), "tmpfs", 0, "mode=0755,size=256m") != 0)
      return failure("tmpfs root");

    // Merged-/usr hosts link these into /usr; others have real folders.
    for (const char* top : {"/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32"}) {
      char target[256];
      const ssize_t n = readlink(top, target, sizeof target - 1);
      if (n > 0) {
        target[n] = '\0';
        if (symlink(target, (root_ + top).c_str()) != 0) return failure(std::string("link ") + top);
      } else if (isDir(top)) {
        if (auto e = bindReadOnly(top); !e.empty()) return e;
      }
    }
    for (const char* dir : {"/usr", "/etc"})
      if (auto e = bindReadOnly(dir); !e.empty()) return e;
    if (auto e = overlayEtc(options); !e.empty()) return e;
    if (sethostname(options.hostName.data(), options.hostName.size()) != 0)
      return failure("sethostname");
    if (auto e = loopbackUp(); !e.empty()) return e;

    if (auto e = fresh("/proc", "proc", 0555); !e.empty()) return e;
    if (auto e = fresh("/sys", "sysfs", 0555); !e.empty()) return e;
    if (auto e = makeDev(); !e.empty()) return e;

    struct Scratch {
      const char* path;
      mode_t mode;
    };
    for (const Scratch& s : {Scratch{"/tmp", 01777}, Scratch{"/run", 0755},
                             Scratch{"/var/log", 0755}, Scratch{"/var/lib", 0755},
                             Scratch{"/var/tmp", 01777}, Scratch{"/home", 0755},
                             Scratch{"/root", 0700}}) {
      if (auto e = scratch(s.path, s.mode); !e.empty()) return e;
    }
    // Relative, so that the test can follow it from outside too.
    if (symlink("../run", (root_ + "/var/run").c_str()) != 0) return failure("link /var/run");
    if (isDir("/var/lib/dpkg"))
      if (auto e = bindReadOnly("/var/lib/dpkg"); !e.empty()) return e;

    for (const std::string& extra : options.readOnlyBinds)
      if (auto e = bindReadOnly(extra); !e.empty()) return e;

    if (chdir(root_.c_str()) != 0 || chroot(".") != 0 || chdir("/") != 0)
      return failure("chroot");
    return "";
  }

 private:
  static bool isDir(const std::string& path) {
    struct stat st{};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  }

  std::string bindReadOnly(const std::string& host) {
    const std::string at = root_ + host;
    if (isDir(host)) {
      if (!mkdirs(at)) return failure("mkdir " + at);
    } else {
      if (!mkdirs(at.substr(0, at.rfind('/')))) return failure("mkdir for " + at);
      const int fd = open(at.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
      if (fd < 0) return failure("create " + at);
      close(fd);
    }
    if (mount(host.c_str(), at.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
      return failure("bind " + host);
    if (mount(nullptr, at.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
      return failure("read-only " + host);
    return "";
  }

  // Files of the sandbox's own over the host's: the host's name service
  // would otherwise wait on servers this network cannot reach.
  std::string overlayEtc(const Options& options) {
    const std::string own = root_ + "/.sandbox";
    if (!mkdirs(own)) return failure("mkdir /.sandbox");
    const std::pair<const char*, std::string> files[] = {{"/etc/hosts", options.hosts},
                                                         {"/etc/resolv.conf", options.resolvConf}};
    for (const auto& [path, content] : files) {
      struct stat st{};
      if (lstat(path, &st) != 0 || !S_ISREG(st.st_mode)) continue;
      const std::string copy = own + std::strrchr(path, '/');
      std::ofstream(copy) << content;
      if (mount(copy.c_str(), (root_ + path).c_str(), nullptr, MS_BIND, nullptr) != 0)
        return failure(std::string("bind over ") + path);
    }
    return "";
  }

  // A new network namespace starts with its loopback down.
  static std::string loopbackUp() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return failure("socket");
    ifreq req{};
    std::strncpy(req.ifr_name, "lo", IFNAMSIZ - 1);
    const bool up = ioctl(fd, SIOCGIFFLAGS, &req) == 0 &&
                    (req.ifr_flags |= IFF_UP, ioctl(fd, SIOCSIFFLAGS, &req) == 0);
    close(fd);
    return up ? "" : failure("loopback up");
  }

  std::string fresh(const char* path, const char* type, mode_t mode) {
    const std::string at = root_ + path;
    if (!mkdirs(at, mode)) return failure(std::string("mkdir ") + path);
    if (mount(type, at.c_str(), type, MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
      return failure(std::string("mount ") + type);
    return "";
  }

  std::string scratch(const char* path, mode_t mode) {
    const std::string at = root_ + path;
    if (!mkdirs(at)) return failure(std::string("mkdir ") + path);
    const std::string opts = "mode=" + octal(mode) + ",size=128m";
    if (mount("tmpfs", at.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, opts.c_str()) != 0)
      return failure(std::string("tmpfs ") + path);
    return "";
  }

  std::string makeDev() {
    if (auto e = scratch("/dev", 0755); !e.empty()) return e;
    // Device nodes of a read-only bind stay writable: the mount flag guards
    // the file system, not the device behind the node.
    for (const char* node : {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom"})
      if (auto e = bindReadOnly(node); !e.empty()) return e;
    // For tests that mount a FUSE file system inside; hosts without it skip them.
    if (struct stat st{}; stat("/dev/fuse", &st) == 0 && S_ISCHR(st.st_mode))
      if (auto e = bindReadOnly("/dev/fuse"); !e.empty()) return e;
    const std::string shm = root_ + "/dev/shm";
    if (!mkdirs(shm) || mount("tmpfs", shm.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0)
      return failure("tmpfs /dev/shm");
    return "";
  }

  static std::string octal(mode_t mode) {
    std::ostringstream s;
    s << std::oct << mode;
    return s.str();
  }

  std::string root_;
};

[[noreturn]] void runAsInit(int reportFd, const std::string& stage, const Options& options) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const std::string error = RootBuilder(stage).build(options);
  const std::string message = (error.empty() ? std::string("ok") : error) + "\n";
  [[maybe_unused]] ssize_t n = write(reportFd, message.data(), message.size());
  close(reportFd);
  if (!error.empty()) _exit(1);
  // Pid 1 of the namespace: reap every orphan until the test kills us.
  struct sigaction sa{};
  sa.sa_handler = [](int) {};
  sigaction(SIGCHLD, &sa, nullptr);
  for (;;) {
    if (waitpid(-1, nullptr, 0) < 0) pause();
  }
}

}  // namespace

Sandbox::Sandbox(Options options) {
  if (geteuid() != 0) {
    error_ = "end-to-end tests need root to make namespaces";
    return;
  }
  char stage[] = "/tmp/varlo-sandbox.XXXXXX";
  if (mkdtemp(stage) == nullptr) {
    error_ = failure("mkdtemp");
    return;
  }
  stage_ = stage;

  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    error_ = failure("pipe");
    return;
  }
  holder_ = fork();
  if (holder_ < 0) {
    error_ = failure("fork");
    close(report[0]);
    close(report[1]);
    return;
  }
  if (holder_ == 0) {
    close(report[0]);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWPID) != 0) {
      const std::string message = failure("unshare") + "\n";
      [[maybe_unused]] ssize_t n = write(report[1], message.data(), message.size());
      _exit(1);
    }
    const pid_t init = fork();
    if (init == 0) runAsInit(report[1], stage_, options);
    const std::string pidLine = std::to_string(init) + "\n";
    [[maybe_unused]] ssize_t n = write(report[1], pidLine.data(), pidLine.size());
    close(report[1]);
    int status = 0;
    if (init > 0) waitpid(init, &status, 0);
    _exit(0);
  }
  close(report[1]);
  std::string text;
  char buf[512];
  ssize_t n;
  while ((n = read(report[0], buf, sizeof buf)) > 0) text.append(buf, static_cast<std::size_t>(n));
  close(report[0]);

  // Two lines in either order: the init's pid from the holder, and the
  // init's verdict on the set-up ("ok" or what failed).
  std::istringstream lines(text);
  long pid = 0;
  std::string verdict;
  for (std::string line; std::getline(lines, line);) {
    char* end = nullptr;
    const long number = std::strtol(line.c_str(), &end, 10);
    if (!line.empty() && *end == '\0' && number > 0) {
      pid = number;
    } else {
      verdict = line;
    }
  }
  if (pid <= 0 || verdict != "ok") {
    error_ = verdict.empty() ? "sandbox set-up failed" : verdict;
    if (pid > 0) kill(static_cast<pid_t>(pid), SIGKILL);
    return;
  }
  init_ = static_cast<pid_t>(pid);
}

Sandbox::~Sandbox() {
  if (init_ > 0) kill(init_, SIGKILL);
  if (holder_ > 0) {
    if (init_ <= 0) kill(holder_, SIGKILL);
    waitpid(holder_, nullptr, 0);
  }
  if (!stage_.empty()) rmdir(stage_.c_str());
}

std::string Sandbox::hostPath(const std::string& inside) const {
  return "/proc/" + std::to_string(init_) + "/root" + inside;
}

Process Sandbox::spawn(const std::vector<std::string>& argv,
                       const std::vector<std::string>& extraEnv) const {
  if (!ok() || argv.empty()) return Process();
  const std::string nsDir = "/proc/" + std::to_string(init_) + "/ns/";
  const int pidNs = open((nsDir + "pid").c_str(), O_RDONLY | O_CLOEXEC);
  const int ownPidNs = open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC);
  const int root = open(hostPath("/").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  int others[4];
  const char* names[4] = {"net", "uts", "ipc", "mnt"};
  for (int i = 0; i < 4; ++i) others[i] = open((nsDir + names[i]).c_str(), O_RDONLY | O_CLOEXEC);
  int out[2] = {-1, -1};
  const bool ready = pidNs >= 0 && ownPidNs >= 0 && root >= 0 && others[0] >= 0 &&
                     others[1] >= 0 && others[2] >= 0 && others[3] >= 0 &&
                     pipe2(out, O_CLOEXEC) == 0;

  std::vector<std::string> env = {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                                  "HOME=/root", "LANG=C"};
  for (const char* keep : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"})
    if (const char* v = std::getenv(keep)) env.push_back(std::string(keep) + "=" + v);
  env.insert(env.end(), extraEnv.begin(), extraEnv.end());
  std::vector<char*> args, envp;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);

  pid_t child = -1;
  // Only this thread's children change namespace; the test itself stays put.
  if (ready && setns(pidNs, CLONE_NEWPID) == 0) {
    child = fork();
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (int fd : others)
        if (setns(fd, 0) != 0) _exit(126);
      if (fchdir(root) != 0 || chroot(".") != 0 || chdir("/") != 0) _exit(126);
      dup2(out[1], 1);
      dup2(out[1], 2);
      const int devnull = open("/dev/null", O_RDONLY | O_CLOEXEC);
      if (devnull >= 0) dup2(devnull, 0);
      execve(args[0], args.data(), envp.data());
      _exit(127);
    }
    setns(ownPidNs, CLONE_NEWPID);
  }
  for (int fd : {pidNs, ownPidNs, root, others[0], others[1], others[2], others[3], out[1]})
    if (fd >= 0) close(fd);
  if (child <= 0) {
    if (out[0] >= 0) close(out[0]);
    return Process();
  }
  fcntl(out[0], F_SETFL, O_NONBLOCK);
  return Process(child, out[0]);
}

std::optional<Sandbox::Result> Sandbox::run(const std::vector<std::string>& argv,
                                            std::chrono::milliseconds timeout) const {
  Process p = spawn(argv);
  if (!p.running() || !p.wait(timeout)) return std::nullopt;
  return Result{*p.exitCode(), p.output()};
}

Sandbox::NetworkScope::NetworkScope(const Sandbox& box) {
  if (!box.ok()) return;
  home_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  const int target =
      open(("/proc/" + std::to_string(box.init_) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
  entered_ = home_ >= 0 && target >= 0 && setns(target, CLONE_NEWNET) == 0;
  if (target >= 0) close(target);
}

Sandbox::NetworkScope::~NetworkScope() {
  if (entered_) setns(home_, CLONE_NEWNET);
  if (home_ >= 0) close(home_);
}

Process::Process(pid_t pid, int outFd) : pid_(pid), outFd_(outFd) {}

Process::~Process() { reset(); }

Process::Process(Process&& other) noexcept { *this = std::move(other); }

Process& Process::operator=(Process&& other) noexcept {
  if (this != &other) {
    reset();
    pid_ = std::exchange(other.pid_, -1);
    status_ = std::exchange(other.status_, std::nullopt);
    outFd_ = std::exchange(other.outFd_, -1);
    output_ = std::move(other.output_);
  }
  return *this;
}

void Process::reset() {
  if (pid_ > 0 && !status_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (outFd_ >= 0) close(outFd_);
  pid_ = -1;
  outFd_ = -1;
  status_.reset();
}

void Process::signal(int sig) const {
  if (running()) kill(pid_, sig);
}

std::string Process::output() {
  if (outFd_ >= 0) {
    char buf[4096];
    ssize_t n;
    while ((n = read(outFd_, buf, sizeof buf)) > 0) output_.append(buf, static_cast<std::size_t>(n));
  }
  return output_;
}

std::optional<int> Process::wait(std::chrono::milliseconds timeout) {
  if (status_ || pid_ <= 0) return status_;
  waitUntil(
      [&] {
        output();  // keep the pipe drained so the child never blocks on it
        int st = 0;
        if (waitpid(pid_, &st, WNOHANG) == pid_) status_ = st;
        return status_.has_value();
      },
      timeout);
  output();
  return status_;
}

std::optional<int> Process::exitCode() const {
  if (!status_) return std::nullopt;
  if (WIFEXITED(*status_)) return WEXITSTATUS(*status_);
  return 128 + WTERMSIG(*status_);
}

bool waitUntil(const std::function<bool()>& cond, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (cond()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace sandbox
