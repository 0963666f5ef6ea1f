#include "core/vllog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
  std::lock_guard<std::mutex> lock(mutex_);
  file_.reset();
}

bool VLLog::open(const std::string& file) {
  file_.reset(::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644));
  return file_.valid();
}

int VLLog::init() {
  std::vector<std::string> held;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    initTried_ = true;
    held.swap(held_);
  }
  if (checkVLDir() != 0) return -1;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!open(path())) {
      // The directory is there but the file cannot be written: use the fallback.
      vlpath_ = fallbackDir_;
      if (!open(path())) return -1;
    }
    curSize_ = 0;
  }
  LogMessage("Log Opened Successfully");
  for (const std::string& line : held) Log(line);
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
  // One write a line, so each reaches the file whole even if we crash next.
  std::string text;
  text.reserve(line.size() + 1);
  text += line;
  text += '\n';
  std::lock_guard<std::mutex> lock(mutex_);
  if (!file_.valid()) {
    // Held until the log opens; after a failed open, dropped without a word.
    if (!initTried_ && held_.size() < kMaxHeld) held_.push_back(line);
    return;
  }
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(file_.get(), text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // a full disk loses the line, not the agent
    done += static_cast<std::size_t>(n);
  }
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
  if (!file_.valid()) return;
  file_.reset();
  const std::string current = path();
  std::rename(current.c_str(), (current + ".1").c_str());  // a failed rename is ignored
  open(current);
  curSize_ = 0;
}
