// Asks a mount point about itself without waiting on it for ever. A hard NFS
// or FUSE mount whose server is gone blocks stat() and statvfs() until the
// server comes back, so each call runs on a detached helper thread and the
// caller waits at most a bound. A mount that did not answer in time is
// answered unreachable at once until its blocked call returns; only then is
// it asked afresh, so no mount ever holds more than one thread.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>

class CMountProbe {
 public:
  enum class Status {
    kOk,           // answered; value holds the answer
    kError,        // answered with an error number
    kUnreachable,  // no answer within the bound, a call still blocked, or stopped
  };

  template <typename T>
  struct Answer {
    Status status = Status::kUnreachable;
    T value{};      // zero unless kOk
    int error = 0;  // the error number with kError
    bool ok() const { return status == Status::kOk; }
  };

  // The raw calls: 0, or the error number.
  using StatCall = std::function<int(const std::string& path, struct stat& out)>;
  using StatvfsCall = std::function<int(const std::string& path, struct statvfs& out)>;

  // Under the two seconds a command may wait on a mount, so that a Volumes
  // answer with one dead mount among them still comes within that.
  static constexpr std::chrono::milliseconds kDefaultBound{1500};

  // The one probe every command asks through, so that the limit of one
  // blocked call per mount point holds across sessions.
  static CMountProbe& instance();

  // Empty calls stand for the system's stat() and statvfs(). Tests hand in
  // calls that block for as long as they like.
  explicit CMountProbe(StatCall stat = {}, StatvfsCall statvfs = {},
                       std::chrono::milliseconds bound = kDefaultBound);
  CMountProbe(const CMountProbe&) = delete;
  CMountProbe& operator=(const CMountProbe&) = delete;

  // Whether the mount point is a directory (links followed, as the mount
  // itself was). A stop request ends the wait at once with kUnreachable.
  Answer<bool> isDirectory(const std::string& mountPoint, std::stop_token stop = {});
  Answer<struct statvfs> statvfs(const std::string& mountPoint, std::stop_token stop = {});

 private:
  struct Shared;
  template <typename T>
  Answer<T> ask(const std::string& path, const std::function<int(const std::string&, T&)>& call,
                std::stop_token stop);

  // Outlives the probe while any helper thread still runs.
  std::shared_ptr<Shared> shared_;
  StatCall stat_;
  StatvfsCall statvfs_;
  std::chrono::milliseconds bound_;
};
