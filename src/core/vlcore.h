// Start-up and orderly shutdown of the agent: the log, the preferences, the
// worker threads and the pid file, torn down in a fixed, logged order.
#pragma once

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/host_paths.h"

class HostDescription;
class VLForeman;
class VLNetwork;

class VLCore {
 public:
  explicit VLCore(std::string pidFile = host_paths::kPidFile);
  ~VLCore();
  VLCore(const VLCore&) = delete;
  VLCore& operator=(const VLCore&) = delete;

  // 0 when the agent is up; non-zero when it cannot run.
  int init();

  void createPidFile(int pid);
  void deletePidFile();

 private:
  std::string pidFile_;
  std::unique_ptr<HostDescription> host_;
  std::unique_ptr<VLNetwork> network_;
  std::unique_ptr<VLForeman> foreman_;
  // In creation order, so shutdown joins them in the order they started.
  std::vector<std::thread> threads_;
};
