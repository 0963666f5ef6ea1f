// The installed applications, each a name and a version, found by a thread
// of their own and handed out while the search goes on, so the first batches
// of the answer leave before the walk is over.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <stop_token>
#include <string>
#include <unordered_map>
#include <utility>

#include "base/thread.h"
#include "intake/vlsemaphore.h"
#include "software/app_sources.h"
#include "software/dir_fd_cache.h"

class CApps {
 public:
  // A stop on stop ends the search at the next list file or entry and wakes
  // a consumer waiting in getNextApp.
  explicit CApps(std::stop_token stop = {}, AppSources sources = {});
  // Ends the search early (nobody will read the rest) and joins the thread.
  ~CApps();
  CApps(const CApps&) = delete;
  CApps& operator=(const CApps&) = delete;

  // Starts the producer; 0, or logs and returns -1.
  static int startThread(CApps& apps);
  // The producer's body; null for a null argument, else the argument.
  static void* start(void* arg);

  // The whole search; ends with one extra wake-up for the consumer.
  int findApps();
  // The package manager's list: dpkg where its status file exists, else rpm
  // where it is on the search path; non-zero when neither answered.
  int getAppsList();

  // Adds the pair unless it is there already.
  void addApp(const std::string& name, const std::string& version);
  // Waits for the next pair: 0 with it, 1 at the end of the list (or once
  // a stop was requested).
  int getNextApp(std::string& name, std::string& version);
  // Queues every pair found so far again, in name order.
  void resetPtr();

  // Every entry of dir whose owner-execute bit is set, directories too.
  int findExeinDir(std::string dir);
  int getRPMList();
  int getDpkgList();
  // Package name to version from the dpkg status file.
  void createVersionList(std::map<std::string, std::string>& versions);
  // Adds the package of one dpkg list file if it owns an executable.
  int processListFile(const std::string& path);

  // "libc6" of ".../info/libc6:amd64.list": the text between the last '/'
  // and the last '.', without a ":ARCH" qualifier.
  static std::string packageOfListFile(const std::string& path);

  bool stopRequested() const { return stop_.stop_requested(); }

  // The pairs added so far (for tests and fuzzing; the producer's own).
  const std::multimap<std::string, std::string>& added() const { return apps_; }
  const std::map<std::string, std::string>& versions() const { return versions_; }

 private:
  // Owner, group or other may run it, and it is a regular file.
  enum class PathKind { kOther, kPlainFile, kExecutable };
  PathKind kindOf(const std::string& hostPath);
  bool hasPair(const std::string& name, const std::string& version) const;
  std::string findOnSearchPath(const std::string& program) const;

  std::multimap<std::string, std::string> apps_;
  std::map<std::string, std::string> versions_;
  Semaphore semaphore_{0};
  std::mutex mutex_;  // the queue, and apps_ against resetPtr
  std::deque<std::pair<std::string, std::string>> queue_;
  AppSources sources_;
  // Paths already looked at that are not plain files (the folders every
  // package lists) or are executables: none is checked twice.
  std::unordered_map<std::string, bool> seen_;
  DirFdCache folders_;
  std::stop_source ownStop_;
  std::stop_callback<std::function<void()>> outerStop_;
  std::stop_callback<std::function<void()>> wakeOnStop_;
  std::stop_token stop_;
  Thread thread_;  // last: joined before anything it uses goes
  bool threadStarted_ = false;
};
