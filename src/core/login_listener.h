// Follows console log-ins so that the probe reply names the user who is at
// the machine now: logind's session monitor where logind runs, else a watch
// on the utmp file. Its descriptor is polled by the main thread's run loop.
#pragma once

#include <memory>
#include <string>

#include "base/unique_fd.h"

class CPrefs;
struct sd_login_monitor;

class LoginListener {
 public:
  LoginListener(CPrefs* prefs, const std::string& seatsDir, const std::string& utmpPath);
  ~LoginListener();
  LoginListener(const LoginListener&) = delete;
  LoginListener& operator=(const LoginListener&) = delete;

  bool ok() const { return fd() >= 0; }
  int fd() const;
  // Drains what woke the run loop and refreshes the console user once.
  void dispatch();

 private:
  CPrefs* prefs_;
  sd_login_monitor* monitor_ = nullptr;
  UniqueFd inotify_;
  std::string utmpName_;
};

// Sets up the listener on the process-wide preferences; logs the outcome.
std::unique_ptr<LoginListener> setLoginListener();

// Refreshes the console user; 1 when somebody is at the console, else 0.
int LoginCallback(CPrefs* info);
