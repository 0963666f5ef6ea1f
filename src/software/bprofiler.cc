#include "software/bprofiler.h"

int CBProfiler::collectExtensions(const std::string& root, unsigned long cutoff,
                                  unsigned long& files) {
  fileExt_.setRoot(root);
  return fileExt_.enumFileExts(files, cutoff);
}

void CBProfiler::updateCache(const std::string& ext, double value) {
  auto [it, fresh] = cache_.try_emplace(ext, 1, value);
  if (!fresh) {
    it->second.first += 1;
    it->second.second += value;
  }
}

int CBProfiler::getNextCached(std::string& ext, std::uint32_t& count, double& total) {
  if (!cursorSet_) {
    cursor_ = cache_.cbegin();
    cursorSet_ = true;
  }
  if (cursor_ == cache_.cend()) return -1;
  ext = cursor_->first;
  count = cursor_->second.first;
  total = cursor_->second.second;
  ++cursor_;
  return 0;
}

void CBProfiler::getFileExt(const std::string& name, std::string& ext) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos) {
    ext = name.size() <= 4 ? name : std::string();
    return;
  }
  const std::string tail = name.substr(dot + 1);
  ext = tail.size() <= 4 ? tail : std::string();
}
