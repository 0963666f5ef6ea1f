// The agent's one log file: time-stamped lines, flushed one by one, rotated
// to a single ".1" copy once the text written passes a fixed size.
#pragma once

#include <cstdint>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "base/host_paths.h"
#include "base/unique_fd.h"

class VLLog {
 public:
  static constexpr std::uint32_t kDefaultMaxSize = 5000000;

  // The process-wide instance, built on first use and destroyed at exit.
  static VLLog* makeLog();

  // A log in dir (falling back to fallbackDir when the file cannot be opened
  // there). The process-wide one uses /var/log and /tmp; tests use their own.
  VLLog(std::string dir = host_paths::kLogDir,
        std::string fallbackDir = host_paths::kLogFallbackDir,
        std::uint32_t maxSize = kDefaultMaxSize);
  ~VLLog();
  VLLog(const VLLog&) = delete;
  VLLog& operator=(const VLLog&) = delete;

  int init();

  int LogMessage(const char* text);
  int LogMessage(const std::string& text);
  int LogMessage(const std::stringstream& text);

  // Writes the text as one line, unchanged (no time stamp).
  void Log(const std::stringstream& line);
  void Log(const std::string& line);

  static void getLocalTimeString(std::string& out);

  std::string path() const { return vlpath_ + "/" + fileName_; }
  const std::string& directory() const { return vlpath_; }

 private:
  int checkVLDir();
  int createVLDir();
  void rotateLog();
  bool open(const std::string& path);

  std::uint32_t maxSize_;
  std::uint32_t curSize_ = 0;
  std::string fileName_ = host_paths::kLogFileName;
  std::string vlpath_;
  std::string fallbackDir_;
  UniqueFd file_;  // close-on-exec: children of the actions must not inherit it
  std::mutex mutex_;
  // Lines logged before the first init (the login listener is set up before
  // the log opens), written once it has opened; a few dozen at most.
  static constexpr std::size_t kMaxHeld = 64;
  bool initTried_ = false;
  std::vector<std::string> held_;
};

// Every part of the agent logs through this one object.
extern VLLog* Log;
