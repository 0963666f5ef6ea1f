#include "vllog.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <iostream>

VLLog* Log = VLLog::makeLog();

VLLog* VLLog::makeLog() {
  static VLLog instance;
  return &instance;
}

VLLog::VLLog(std::string dir, std::string fallbackDir, std::uint32_t maxSize)
    : maxSize_(maxSize), vlpath_(std::move(dir)), fallbackDir_(std::move(fallbackDir)) {}

VLLog::~VLLog() {
  LogMessage("Closing Log");
  if (file_.is_open()) file_.close();
}

int VLLog::init() {
  if (checkVLDir() != 0) return -1;
  file_.open(path(), std::ios::out | std::ios::trunc);
  if (!file_.is_open()) {
    // The directory is there but the file cannot be written: use the fallback.
    file_.clear();
    vlpath_ = fallbackDir_;
    file_.open(path(), std::ios::out | std::ios::trunc);
    if (!file_.is_open()) return -1;
  }
  curSize_ = 0;
  LogMessage("Log Opened Successfully");
  return 0;
}

int VLLog::checkVLDir() {
  struct stat st{};
  if (stat(vlpath_.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return 0;
    std::cerr << vlpath_ << "/ is not a directory!";
    return -20;
  }
  if (errno == ENOENT) return createVLDir();
  std::cerr << "Could not get directory status of " << vlpath_ << "/ Error: " << errno;
  return -1;
}

int VLLog::createVLDir() {
  if (mkdir(vlpath_.c_str(), 0700) != 0) {
    std::cerr << "Unable to create directory " << vlpath_ << "/ Error: " << errno;
    return -1;
  }
  return 0;
}

int VLLog::LogMessage(const char* text) { return LogMessage(std::string(text)); }

int VLLog::LogMessage(const std::stringstream& text) { return LogMessage(text.str()); }

int VLLog::LogMessage(const std::string& text) {
  std::string line;
  getLocalTimeString(line);
  line += ":   ";
  line += text;
  Log(line);
  return 0;
}

void VLLog::Log(const std::stringstream& line) { Log(line.str()); }

void VLLog::Log(const std::string& line) {
  std::lock_guard<std::mutex> lock(mutex_);
  // Before init, or after a failed one, lines are dropped without a word.
  if (!file_.is_open()) return;
  file_ << line << '\n';
  file_.flush();
  curSize_ += static_cast<std::uint32_t>(line.size());
  if (curSize_ > maxSize_) rotateLog();
}

void VLLog::getLocalTimeString(std::string& out) {
  const std::time_t now = std::time(nullptr);
  char buf[32] = {};
  if (ctime_r(&now, buf) == nullptr) {
    out.clear();
    return;
  }
  out.assign(buf);
  if (!out.empty() && out.back() == '\n') out.pop_back();
}

void VLLog::rotateLog() {
  if (!file_.is_open()) return;
  file_.close();
  const std::string current = path();
  std::rename(current.c_str(), (current + ".1").c_str());  // a failed rename is ignored
  file_.clear();
  file_.open(current, std::ios::out | std::ios::trunc);
  curSize_ = 0;
}
