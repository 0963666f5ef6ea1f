#include "core/login_listener.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <systemd/sd-login.h>

#include <cstring>

#include "base/host_paths.h"
#include "prefs/prefs.h"
#include "core/vllog.h"

int LoginCallback(CPrefs* info) {
  if (info == nullptr) return 0;
  return info->checkForUser();
}

LoginListener::LoginListener(CPrefs* prefs, const std::string& seatsDir,
                             const std::string& utmpPath)
    : prefs_(prefs) {
  struct stat st{};
  if (stat(seatsDir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    if (sd_login_monitor_new("session", &monitor_) < 0) monitor_ = nullptr;
    return;
  }
  // The folder is watched rather than the file: utmp may not exist yet, and
  // login tools may replace it rather than write it in place.
  const std::size_t slash = utmpPath.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : utmpPath.substr(0, slash + 1);
  utmpName_ = slash == std::string::npos ? utmpPath : utmpPath.substr(slash + 1);
  inotify_.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (inotify_.valid() &&
      inotify_add_watch(inotify_.get(), dir.c_str(),
                        IN_CLOSE_WRITE | IN_MODIFY | IN_CREATE | IN_MOVED_TO) < 0) {
    inotify_.reset();
  }
}

LoginListener::~LoginListener() {
  if (monitor_ != nullptr) sd_login_monitor_unref(monitor_);
}

int LoginListener::fd() const {
  if (monitor_ != nullptr) return sd_login_monitor_get_fd(monitor_);
  return inotify_.get();
}

void LoginListener::dispatch() {
  bool changed = false;
  if (monitor_ != nullptr) {
    sd_login_monitor_flush(monitor_);
    changed = true;
  } else if (inotify_.valid()) {
    alignas(inotify_event) char buf[4096];
    ssize_t n;
    while ((n = read(inotify_.get(), buf, sizeof buf)) > 0) {
      for (char* p = buf; p < buf + n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(p);
        if (event->len > 0 && utmpName_ == event->name) changed = true;
        p += sizeof(inotify_event) + event->len;
      }
    }
  }
  if (changed) LoginCallback(prefs_);
}

std::unique_ptr<LoginListener> setLoginListener() {
  auto listener =
      std::make_unique<LoginListener>(Prefs, host_paths::kLogindSeats, host_paths::kUtmp);
  if (!listener->ok()) {
    Log->LogMessage("Failed to set login notification handler");
    return nullptr;
  }
  Log->LogMessage("Successfully set login notification handler.");
  return listener;
}
