#include "core/vlcore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <system_error>

#include "intake/host_description.h"
#include "prefs/prefs.h"
#include "varlo/version.h"
#include "base/unique_fd.h"
#include "intake/vlbuffer.h"
#include "intake/vlforeman.h"
#include "intake/vlnetwork.h"
#include "core/vllog.h"

VLCore::VLCore(std::string pidFile) : pidFile_(std::move(pidFile)) {}

int VLCore::init() {
  if (Log->init() != 0) return -1;
  Log->LogMessage("Varlo Core Initializing");
  char version[200] = {};
  std::snprintf(version, sizeof version, "Varlo Version: %u.%u.%u", varlo::kVersionMajor,
                varlo::kVersionMinor, varlo::kVersionPatch);
  Log->LogMessage(version);

  Prefs->init();

  host_ = std::make_unique<HostDescription>(*Prefs);
  network_ = std::make_unique<VLNetwork>(sharedBuffer, [host = host_.get()] { return host->reply(); });
  const int result = network_->init();
  if (result < 0) return result;
  try {
    threads_.emplace_back(&VLNetwork::run, network_.get());
  } catch (const std::system_error& e) {
    Log->LogMessage("Unable to create network thread.  Error: " + std::to_string(e.code().value()));
    return e.code().value();
  }

  foreman_ = std::make_unique<VLForeman>(sharedBuffer);
  try {
    threads_.emplace_back(&VLForeman::run, foreman_.get());
  } catch (const std::system_error& e) {
    Log->LogMessage("Unable to create command processor thread.  Error: " +
                    std::to_string(e.code().value()));
    return e.code().value();
  }

  Log->LogMessage("Creating Pid File");
  createPidFile(static_cast<int>(getpid()));
  return 0;
}

VLCore::~VLCore() {
  Log->LogMessage("Varlo Shutting Down");
  Log->LogMessage("Notifying network thread of exit");
  if (network_) network_->exit();
  Log->LogMessage("Notifying foreman thread of exit");
  if (foreman_) foreman_->exit();
  Log->LogMessage("Waiting for threads to shut down");
  int n = 1;
  for (std::thread& thread : threads_) {
    Log->LogMessage("Waiting for thread " + std::to_string(n));
    int result = 0;
    try {
      thread.join();
    } catch (const std::system_error& e) {
      result = e.code().value();
    }
    std::stringstream line;
    line << "Thread " << n << " shut down.  Returned: " << result;
    Log->LogMessage(line);
    ++n;
  }
  threads_.clear();
  Log->LogMessage("Main thread: Cleaning up memory");
  network_.reset();
  foreman_.reset();
  host_.reset();
  Log->LogMessage("Deleting Pid File");
  deletePidFile();
  Log->LogMessage("Shutdown completed");
}

void VLCore::createPidFile(int pid) {
  UniqueFd fd(open(pidFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  const std::string text = std::to_string(pid);
  if (!fd.valid() || write(fd.get(), text.data(), text.size()) != ssize_t(text.size())) {
    Log->LogMessage("Unable to create pid file!");
    return;
  }
  Log->LogMessage("Pid File created successfully");
}

void VLCore::deletePidFile() {
  struct stat st{};
  if (stat(pidFile_.c_str(), &st) != 0) Log->LogMessage("Could not find pid file!");
  unlink(pidFile_.c_str());
  Log->LogMessage("Pid File removed");
}
