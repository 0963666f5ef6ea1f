#include "sandbox/sandbox.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <linux/capability.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <thread>

// Returns what failed, if the step failed.
#define TRY(step) \
  if (std::string e = (step); !e.empty()) return e

namespace sandbox {
namespace {

std::string failure(const std::string& what) { return what + ": " + std::strerror(errno); }

bool isDir(const std::string& path) {
  std::error_code ec;
  return std::filesystem::is_directory(path, ec);
}

bool mkdirs(const std::string& path) {
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  return !ec;
}

// What follows runs in the sandbox's pid 1, building its root on the host folder rootDir.
std::string rootDir;

std::string mountAt(const std::string& path, const char* type, unsigned long flags,
                    const char* data) {
  const std::string at = rootDir + path;
  if (!mkdirs(at)) return failure("mkdir " + path);
  if (mount(type, at.c_str(), type, flags, data) != 0) return failure(type + (" " + path));
  return "";
}

// A file is bound onto an empty file of its own, a folder onto a folder.
std::string bindReadOnly(const std::string& host) {
  const std::string at = rootDir + host;
  const bool dir = isDir(host);
  if (!mkdirs(dir ? at : at.substr(0, at.rfind('/')))) return failure("mkdir for " + at);
  if (!dir && !std::ofstream(at)) return failure("create " + at);
  if (mount(host.c_str(), at.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
    return failure("bind " + host);
  if (mount(nullptr, at.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
    return failure("read-only " + host);
  return "";
}

constexpr const char* kStandIn =
    "#!/bin/sh\n"
    "d=/tmp/standins; mkdir -p \"$d\" 2>/dev/null; f=\"$d/$(basename \"$0\").$$\"\n"
    "{ printf '%s\\n' \"$@\"; echo --; id -u; id -g; id -G; echo --; env | sort; } > \"$d/.$$\"\n"
    "mv \"$d/.$$\" \"$f\"\n";  // whole or not at all for a reader

std::string writeStandIn(const std::string& insidePath) {
  const std::string at = rootDir + insidePath;
  if (!(std::ofstream(at) << kStandIn) || chmod(at.c_str(), 0755) != 0)
    return failure("stand-in " + insidePath);
  return "";
}

// Stand-ins where the agent looks first, and /sbin/shutdown over the host's.
std::string addStandIns() {
  for (const char* dir : {"/usr/local/bin", "/usr/local/sbin"}) {
    if (!isDir(rootDir + dir)) continue;
    TRY(mountAt(dir, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=1m"));
  }
  // Anyone may record: the stand-ins of the console user's programs run as that user.
  const std::string records = rootDir + "/tmp/standins";
  if (!mkdirs(records) || chmod(records.c_str(), 01777) != 0) return failure("mkdir /tmp/standins");
  TRY(writeStandIn("/usr/local/bin/notify-send"));
  TRY(writeStandIn("/usr/local/bin/xdg-open"));
  TRY(writeStandIn("/usr/local/sbin/dpkg"));
  TRY(writeStandIn("/usr/local/sbin/dpkg-deb"));
  const std::string layers = rootDir + "/.sandbox/sbin";
  if (!mkdirs(layers + "/upper") || !mkdirs(layers + "/work")) return failure("mkdir overlay");
  const std::string options = "lowerdir=" + rootDir + "/usr/sbin,upperdir=" + layers +
                              "/upper,workdir=" + layers + "/work";
  if (mount("overlay", (rootDir + "/usr/sbin").c_str(), "overlay", 0, options.c_str()) != 0)
    return failure("overlay /usr/sbin");
  unlink((rootDir + "/usr/sbin/shutdown").c_str());
  return writeStandIn("/usr/sbin/shutdown");
}

std::string build(const Options& options) {
  if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWUTS | CLONE_NEWIPC) != 0)
    return failure("unshare");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return failure("make mounts private");
  if (mount("varlo-root", rootDir.c_str(), "tmpfs", 0, "mode=0755,size=256m") != 0)
    return failure("tmpfs root");
  // Merged-/usr hosts link these into /usr; others have real folders.
  for (const char* top : {"/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32"}) {
    std::error_code notLink;
    const auto target = std::filesystem::read_symlink(top, notLink);
    if (!notLink && symlink(target.c_str(), (rootDir + top).c_str()) != 0)
      return failure(std::string("link ") + top);
    if (notLink && isDir(top)) TRY(bindReadOnly(top));
  }
  for (const char* dir : {"/usr", "/etc"}) TRY(bindReadOnly(dir));
  // Its own, or the host's name service would wait on servers this network cannot reach.
  for (const auto& [path, content] : {std::pair{"/etc/hosts", options.hosts},
                                      {"/etc/resolv.conf", options.resolvConf}}) {
    struct stat st{};
    if (lstat(path, &st) != 0 || !S_ISREG(st.st_mode)) continue;
    const std::string copy = rootDir + "/.sandbox" + std::strrchr(path, '/');
    if (!mkdirs(rootDir + "/.sandbox") || !(std::ofstream(copy) << content) ||
        mount(copy.c_str(), (rootDir + path).c_str(), nullptr, MS_BIND, nullptr) != 0)
      return failure(std::string("own ") + path);
  }
  if (sethostname(options.hostName.data(), options.hostName.size()) != 0)
    return failure("sethostname");
  // A new network namespace starts with its loopback down.
  ifreq lo{};
  std::strncpy(lo.ifr_name, "lo", IFNAMSIZ - 1);
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || ioctl(fd, SIOCGIFFLAGS, &lo) != 0 ||
      (lo.ifr_flags |= IFF_UP, ioctl(fd, SIOCSIFFLAGS, &lo)) != 0)
    return failure("loopback up");
  close(fd);
  TRY(mountAt("/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, ""));
  TRY(mountAt("/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, ""));
  for (const auto& [path, mode] : {std::pair{"/tmp", "1777"}, {"/run", "755"}, {"/var/log", "755"},
                                   {"/var/lib", "755"}, {"/var/tmp", "1777"}, {"/home", "755"},
                                   {"/root", "700"}, {"/dev", "755"}, {"/dev/shm", "1777"}})
    TRY(mountAt(path, "tmpfs", MS_NOSUID | MS_NODEV,
                ("mode=" + std::string(mode) + ",size=128m").c_str()));
  // Device nodes of a read-only bind stay writable: the flag guards the file system only.
  for (const char* node : {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom"})
    TRY(bindReadOnly(node));
  // For tests that mount a FUSE file system inside; hosts without it skip them.
  if (struct stat st{}; stat("/dev/fuse", &st) == 0 && S_ISCHR(st.st_mode))
    TRY(bindReadOnly("/dev/fuse"));
  // Relative, so that the test can follow it from outside too.
  if (symlink("../run", (rootDir + "/var/run").c_str()) != 0) return failure("link /var/run");
  if (isDir("/var/lib/dpkg")) TRY(bindReadOnly("/var/lib/dpkg"));
  for (const std::string& extra : options.readOnlyBinds) TRY(bindReadOnly(extra));
  if (options.standIns) TRY(addStandIns());
  if (chdir(rootDir.c_str()) != 0 || chroot(".") != 0 || chdir("/") != 0) return failure("chroot");
  return "";
}

[[noreturn]] void runAsInit(int reportFd, const std::string& stage, const Options& options) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  rootDir = stage;
  const std::string error = build(options);
  const std::string message = (error.empty() ? std::string("ok") : error) + "\n";
  [[maybe_unused]] ssize_t n = write(reportFd, message.data(), message.size());
  close(reportFd);
  if (!error.empty()) _exit(1);
  // Pid 1 of the namespace: reap every orphan until the test kills us.
  struct sigaction sa{};
  sa.sa_handler = [](int) {};
  sigaction(SIGCHLD, &sa, nullptr);
  for (;;)
    if (waitpid(-1, nullptr, 0) < 0) pause();
}

}  // namespace

Sandbox::Sandbox(Options options) {
  char stage[] = "/tmp/varlo-sandbox.XXXXXX";
  if (mkdtemp(stage) != nullptr) stage_ = stage;
  int report[2] = {-1, -1};
  const int ownPidNs = open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC);
  if (geteuid() != 0 || stage_.empty() || ownPidNs < 0 || pipe2(report, O_CLOEXEC) != 0 ||
      unshare(CLONE_NEWPID) != 0) {
    error_ = geteuid() != 0 ? "end-to-end tests need root to make namespaces" : failure("set-up");
    for (int fd : {ownPidNs, report[0], report[1]})
      if (fd >= 0) close(fd);
    return;
  }
  // The next child is pid 1 of a new namespace; later ones are not.
  init_ = fork();
  if (init_ == 0) {
    close(report[0]);
    runAsInit(report[1], stage_, options);
  }
  if (init_ < 0) error_ = failure("fork");
  setns(ownPidNs, CLONE_NEWPID);
  close(ownPidNs);
  close(report[1]);
  std::string verdict;
  char buf[512];
  for (ssize_t n; (n = read(report[0], buf, sizeof buf)) > 0;)
    verdict.append(buf, static_cast<std::size_t>(n));
  close(report[0]);
  if (init_ > 0 && verdict != "ok\n") {
    error_ = verdict.empty() ? "sandbox set-up failed" : verdict.substr(0, verdict.size() - 1);
    kill(init_, SIGKILL);
    waitpid(init_, nullptr, 0);
    init_ = -1;
  }
}

Sandbox::~Sandbox() {
  if (init_ > 0) {
    kill(init_, SIGKILL);
    waitpid(init_, nullptr, 0);
  }
  if (!stage_.empty()) rmdir(stage_.c_str());
}

std::string Sandbox::hostPath(const std::string& inside) const {
  return "/proc/" + std::to_string(init_) + "/root" + inside;
}

Process Sandbox::spawn(const std::vector<std::string>& argv,
                       const std::vector<std::string>& extraEnv) const {
  if (!ok() || argv.empty()) return Process();
  const auto openRO = [](const std::string& path) {
    return open(path.c_str(), O_RDONLY | O_CLOEXEC);
  };
  const int ownPidNs = openRO("/proc/self/ns/pid");
  const int root = open(hostPath("/").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  int ns[5];  // pid first, then the ones the child enters itself
  bool ready = ownPidNs >= 0 && root >= 0;
  for (int i = 0; const char* name : {"pid", "net", "uts", "ipc", "mnt"})
    ready &= (ns[i++] = openRO("/proc/" + std::to_string(init_) + "/ns/" + name)) >= 0;
  int out[2] = {-1, -1};
  ready = ready && pipe2(out, O_CLOEXEC) == 0;

  std::vector<std::string> env = {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                                  "HOME=/root", "LANG=C"};
  for (const char* keep : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"})
    if (const char* v = std::getenv(keep)) env.push_back(std::string(keep) + "=" + v);
  // An extra entry replaces one of the same name.
  for (const std::string& extra : extraEnv) {
    const std::string key = extra.substr(0, extra.find('=') + 1);
    std::erase_if(env, [&](const std::string& e) { return e.rfind(key, 0) == 0; });
    env.push_back(extra);
  }
  std::vector<char*> args, envp;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  args.push_back(nullptr);
  envp.push_back(nullptr);

  pid_t child = -1;
  // Only this thread's children change namespace; the test itself stays put.
  if (ready && setns(ns[0], CLONE_NEWPID) == 0) {
    child = fork();
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      // Root in here is root of the machine: never let a test re-clock or reboot it.
      if (prctl(PR_CAPBSET_DROP, CAP_SYS_TIME, 0, 0, 0) != 0 ||
          prctl(PR_CAPBSET_DROP, CAP_SYS_BOOT, 0, 0, 0) != 0)
        _exit(126);
      for (int i = 1; i < 5; ++i)
        if (setns(ns[i], 0) != 0) _exit(126);
      if (fchdir(root) != 0 || chroot(".") != 0 || chdir("/") != 0) _exit(126);
      dup2(out[1], 1);
      dup2(out[1], 2);
      if (const int null = open("/dev/null", O_RDONLY | O_CLOEXEC); null >= 0) dup2(null, 0);
      execve(args[0], args.data(), envp.data());
      _exit(127);
    }
    setns(ownPidNs, CLONE_NEWPID);
  }
  for (int fd : {ownPidNs, root, ns[0], ns[1], ns[2], ns[3], ns[4], out[1]})
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
  pid_ = outFd_ = -1;
  status_.reset();
}

void Process::signal(int sig) const {
  if (running()) kill(pid_, sig);
}

std::string Process::output() {
  char buf[4096];
  for (ssize_t n; outFd_ >= 0 && (n = read(outFd_, buf, sizeof buf)) > 0;)
    output_.append(buf, static_cast<std::size_t>(n));
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
  return WIFEXITED(*status_) ? WEXITSTATUS(*status_) : 128 + WTERMSIG(*status_);
}

bool waitUntil(const std::function<bool()>& cond, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (cond()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace sandbox
