// The file-extension census: every file under a root counted by the
// extension of its name, with its allocated kilobytes, optionally only the
// files changed since a cut-off. Results are handed out in the order the
// extensions were first met.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "base/thread.h"
#include "intake/vlsemaphore.h"
#include "software/census_walk.h"

class CFileExt {
 public:
  struct extdata {
    std::string ext;
    std::uint32_t size = 0;   // kilobytes
    std::uint32_t count = 0;  // files with this extension, less one
  };

  explicit CFileExt(std::string root = {}, CensusWalk::Options options = {});
  // Waits for a census still running on its own thread.
  ~CFileExt();
  CFileExt(const CFileExt&) = delete;
  CFileExt& operator=(const CFileExt&) = delete;

  void setRoot(std::string root) { root_ = std::move(root); }

  // The census on the caller's thread. files receives the number of files
  // counted, rounded down to a multiple of 10 (it is left alone below 10).
  // 0, or -1 when the root is empty or cannot be opened, or on a stop.
  int enumFileExts(unsigned long& files, unsigned long cutoff);
  // threaded: the census runs on its own thread (-1 if none could be made)
  // while getNextFileExt hands out what it has found; otherwise as above.
  int enumFileExts(bool threaded, unsigned long cutoff);

  // Waits for the next extension or the end: 0 with its values as they
  // stand now, -1 at the end.
  int getNextFileExt(std::string& ext, unsigned long& size, unsigned long& count);

  // Files counted so far by the running census; from any thread.
  std::uint64_t filesCounted() const { return walk_.filesCounted(); }

  // Up to five characters after the last '.' of the name (the text after
  // the last '/'); empty when there is no '.' or more characters follow.
  static void getExtension(const std::string& path, std::string& ext);
  // Modification time (seconds since 1970) of the file itself, links not
  // followed; 0 when it cannot be read.
  static std::uint32_t getModTime(const std::string& path);
  // Allocated kilobytes of the file itself; 0 when it cannot be read.
  static std::uint32_t getFileSize(const std::string& path);

  // One more file: a new extension is queued with count 0; a known one
  // grows by the record's size and one file.
  void addExt(const extdata& record);

 private:
  void addTally(const CensusWalk::Tally& tally);
  void endOfResults();

  int threadStarted_ = 0;
  std::string root_;
  std::map<std::string, std::unique_ptr<extdata>> table_;
  std::mutex queueMutex_;  // the census thread appends while a reader takes
  std::deque<extdata*> queue_;
  Semaphore semaphore_;
  std::atomic<bool> ended_{false};
  CensusWalk walk_;
  Thread thread_;
};
