// What Send File and Send Folder targets share: a private folder holding
// every place the handlers may write (the console's folders, the package
// folder, users' desktops, the installer's log and work folder) with links
// planted where a careless write would follow them; the console's end of a
// socket pair read by one thread for the whole run; and the sandbox's
// contents, compared before and after a run.
#pragma once

#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "actions/send_file_handler.h"
#include "console_drain.h"
#include "prefs/prefs.h"
#include "session/session.h"
#include "varlo/records.h"

namespace transfer_sandbox {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

// The console's folder codes, each given its own folder; the agent's own
// folder ('XXXY') is where the executable link points.
struct Code {
  std::uint32_t code;
  const char* folder;
};
inline constexpr Code kCodes[] = {
    {fourCC("XXXX"), "root"}, {fourCC("desk"), "desk"}, {fourCC("ctrl"), "ctrl"},
    {fourCC("extn"), "extn"}, {fourCC("font"), "font"}, {fourCC("macs"), "macs"},
    {fourCC("pref"), "pref"}, {fourCC("strt"), "strt"}, {fourCC("shdf"), "shdf"},
    {fourCC("amnu"), "amnu"}, {fourCC("XXXY"), "app"},
};

inline bool isLinkCode(std::uint32_t code) {
  return code == fourCC("desk") || code == fourCC("shdf") || code == fourCC("amnu");
}

class Sandbox {
 public:
  static Sandbox& instance() {
    static Sandbox* box = new Sandbox;  // lives until exit; its folder is removed then
    return *box;
  }

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& rest) const { return path_ + "/" + rest; }
  CPrefs& prefs() { return *prefs_; }
  const TransferSettings& settings() const { return settings_; }

  // The folder (ending in '/') a code names, or "" for a code with none.
  std::string folderOf(std::uint32_t code) const {
    for (const Code& c : kCodes)
      if (c.code == code) return *this / (std::string("target/") + c.folder + "/");
    return "";
  }
  std::string packageFolder() const { return *this / "target/pkg/"; }
  std::string desktop() const { return *this / "users/ann/Desktop/"; }

  // Every run starts from the same tree.
  void reset() {
    for (const char* d : {"target", "users", "elsewhere", "work", "install.log"})
      fs::remove_all(*this / d);
    for (const Code& c : kCodes) fs::create_directories(*this / (std::string("target/") + c.folder));
    for (const char* d : {"target/pkg", "users/ann/Desktop", "users/Shared/Desktop", "elsewhere",
                          "work", "target/root/tree"})
      fs::create_directories(*this / d);
    std::ofstream(*this / "elsewhere/victim") << "keep";
    // A file link where a file or its sidecar goes, a folder link where a
    // folder goes.
    fs::create_symlink(*this / "elsewhere/victim", *this / "target/root/planted");
    fs::create_symlink(*this / "elsewhere/victim", *this / "target/root/._link");
    fs::create_directory_symlink(*this / "elsewhere", *this / "target/root/tree/sub");
    fs::create_directory_symlink(*this / "elsewhere", *this / "target/root/plantdir");
  }

  // Path (relative to the sandbox) to what it is: "d", "f:SIZE" or "l:TARGET".
  using Listing = std::map<std::string, std::string>;
  Listing list() const {
    Listing out;
    for (auto it = fs::recursive_directory_iterator(path_); it != fs::recursive_directory_iterator();
         ++it) {
      const fs::path& p = it->path();
      const std::string rel = p.string().substr(path_.size() + 1);
      const fs::file_status st = it->symlink_status();
      if (fs::is_symlink(st)) {
        out[rel] = "l:" + fs::read_symlink(p).string();
      } else if (fs::is_directory(st)) {
        out[rel] = "d";
      } else if (fs::is_regular_file(st)) {
        out[rel] = "f:" + std::to_string(fs::file_size(p));
      } else {
        out[rel] = "?";
      }
    }
    return out;
  }

 private:
  Sandbox() {
    const char* base = fs::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
    path_ = std::string(base) + "/varlo_fuzz_transfer_XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) std::abort();
    std::atexit([] { fs::remove_all(instance().path_); });
    reset();
    fs::create_directories(*this / "prefs/VarloPrefs");
    fs::create_directories(*this / "bin");
    // A received file is never started.
    std::ofstream(*this / "prefs/VarloPrefs/.varlo") << CPrefs::kLaunchBlockKey << " 1\n";
    // The agent's own folder is the one its executable is in.
    fs::create_symlink(*this / "target/app/varlo", *this / "exe");

    PrefsSources s;
    s.localPrefsDir = *this / "prefs";
    s.prefsFallbackDir = *this / "prefs";
    s.utmp = *this / "utmp";
    s.wtmp = *this / "wtmp";
    s.logindSeats = *this / "seats";
    s.selfExe = *this / "exe";
    s.folders.clear();
    for (const Code& c : kCodes) s.folders[c.code] = *this / (std::string("target/") + c.folder);
    prefs_ = new CPrefs(s);
    prefs_->init();
    if (!prefs_->launchBlocked()) std::abort();
    for (const Code& c : kCodes) {
      std::string p;
      if (prefs_->getFolderLocation(c.code, p) != 0 || p != folderOf(c.code)) std::abort();
    }

    settings_.usersRoot = *this / "users";
    settings_.packageFolder = packageFolder();
    // No package tool on the search path and no shell to unpack with: the
    // installer's child only writes its log.
    settings_.install.searchPath = *this / "bin";
    settings_.install.shell = *this / "bin/no-shell";
    settings_.install.log = *this / "install.log";
    settings_.install.workDir = *this / "work";
    settings_.install.systemdMarker = *this / "no-systemd";
  }

  std::string path_;
  CPrefs* prefs_ = nullptr;
  TransferSettings settings_;
};

inline int openFds() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) std::abort();
  while (readdir(d) != nullptr) ++n;
  closedir(d);
  return n;
}

using fuzz_support::ConsoleDrain;

// Runs handler on a session whose console has already sent `input` and
// closed its sending side, so every receive past the input ends at once.
// Returns what the handler sent; the children it started are reaped.
template <typename Handler>
Bytes converse(const Bytes& input, Handler handler) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) std::abort();
  // The input must fit the socket: the handler reads only after it is sent.
  const int size = 1 << 20;
  setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  setsockopt(fds[0], SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  for (std::size_t done = 0; done < input.size();) {
    const ssize_t n = ::send(fds[1], input.data() + done, input.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) std::abort();
    done += static_cast<std::size_t>(n);
  }
  ::shutdown(fds[1], SHUT_WR);
  ConsoleDrain::instance().start(fds[1]);
  std::vector<pid_t> children;
  {
    Session session(fds[0], 1, Sandbox::instance().prefs());
    handler(session);
    children = session.takeChildren();
  }  // the session's end closes, so the drain sees the end
  Bytes out = ConsoleDrain::instance().wait();
  ::close(fds[1]);
  for (const pid_t pid : children) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  return out;
}

// The agent's replies: whole acknowledgements (command 0, last set, no
// status); a refusal says why and ends the dialogue.
inline void checkAcks(const Bytes& out) {
  constexpr std::size_t kSize = varlo::varlo_manage::kSize;
  if (out.size() % kSize != 0) __builtin_trap();
  for (std::size_t at = 0; at < out.size(); at += kSize) {
    const std::uint8_t* r = out.data() + at;
    if (r[0] != 0 || r[1] != 0 || r[3] != 1 || r[4] != 0) __builtin_trap();
    if (r[2] > 1) __builtin_trap();
    const std::size_t textLength = r[varlo::varlo_manage::Message::offset];
    for (std::size_t i = 5; i < kSize; ++i) {
      const bool inText = i >= 68 && i <= 68 + textLength;
      if (!inText && r[i] != 0) __builtin_trap();
    }
    if (r[2] == 0 && (textLength == 0 || at + kSize != out.size())) __builtin_trap();
    if (r[2] == 1 && textLength != 0) __builtin_trap();
  }
}

// The Pascal name of a request (offset 68, up to its first NUL).
inline std::string nameOf(const Bytes& request) {
  if (request.size() < varlo::varlo_manage::kSize) return "";
  const std::size_t length = std::min<std::size_t>(request[68], 255);
  std::string name(reinterpret_cast<const char*>(request.data() + 69), length);
  return name.substr(0, name.find('\0'));
}

// A name the agent must accept: one path component, neither "." nor "..".
inline bool validName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

inline std::uint32_t codeOf(const Bytes& request) {
  if (request.size() < varlo::varlo_manage::kSize) return 0;
  return varlo::getU32(request.data() + 36);
}

// The input's first byte picks a folder code patched into the request (a
// value past the table leaves the request's own); the rest is the stream.
inline Bytes streamOf(const std::uint8_t* data, std::size_t size) {
  Bytes stream(data + 1, data + size);
  const std::size_t pick = data[0];
  if (pick < std::size(kCodes) && stream.size() >= 40) varlo::putU32(stream.data() + 36, kCodes[pick].code);
  return stream;
}

}  // namespace transfer_sandbox
