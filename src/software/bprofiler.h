// The backup profiler's census of one partition.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "software/file_ext.h"

class CBProfiler {
 public:
  explicit CBProfiler(CensusWalk::Options options = {}) : fileExt_({}, std::move(options)) {}

  // The census of root, run on the caller's thread (see CFileExt).
  int collectExtensions(const std::string& root, unsigned long cutoff, unsigned long& files);
  int getNextExt(std::string& ext, unsigned long& size, unsigned long& count) {
    return fileExt_.getNextFileExt(ext, size, count);
  }
  CFileExt& fileExt() { return fileExt_; }

  // A count and a running total per extension, for callers that keep
  // their own figures.
  void updateCache(const std::string& ext, double value);
  // 0 with the next cached extension, -1 at the end.
  int getNextCached(std::string& ext, std::uint32_t& count, double& total);

  // The text after the last '.' when it has at most 4 characters, else
  // empty; a name without '.' of at most 4 characters is taken whole.
  static void getFileExt(const std::string& name, std::string& ext);

 private:
  std::map<std::string, std::pair<std::uint32_t, double>> cache_;
  std::map<std::string, std::pair<std::uint32_t, double>>::const_iterator cursor_ = cache_.cend();
  bool cursorSet_ = false;
  CFileExt fileExt_;
};
