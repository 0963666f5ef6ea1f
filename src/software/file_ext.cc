#include "software/file_ext.h"

#include <sys/stat.h>

#include <cstring>
#include <system_error>
#include <vector>

CFileExt::CFileExt(std::string root, CensusWalk::Options options)
    : root_(std::move(root)), walk_(std::move(options)) {}

CFileExt::~CFileExt() {
  if (thread_.joinable()) thread_.join();
}

int CFileExt::enumFileExts(unsigned long& files, unsigned long cutoff) {
  int result = -1;
  if (!root_.empty()) {
    std::vector<CensusWalk::Tally> tallies;
    const auto limit = static_cast<std::uint32_t>(cutoff > UINT32_MAX ? UINT32_MAX : cutoff);
    result = walk_.run(root_, limit, tallies);
    if (result == 0) {
      for (const auto& tally : tallies) addTally(tally);
      const std::uint64_t counted = walk_.filesCounted();
      if (counted >= 10) files = static_cast<unsigned long>(counted - counted % 10);
    }
  }
  endOfResults();
  return result;
}

int CFileExt::enumFileExts(bool threaded, unsigned long cutoff) {
  if (!threaded) {
    unsigned long files = 0;
    return enumFileExts(files, cutoff);
  }
  if (thread_.joinable()) return -1;
  try {
    // The thread keeps its own copies of the arguments.
    thread_ = Thread([this, cutoff] {
      unsigned long files = 0;
      enumFileExts(files, cutoff);
    });
  } catch (const std::system_error&) {
    return -1;
  }
  threadStarted_ = 1;
  return 0;
}

int CFileExt::getNextFileExt(std::string& ext, unsigned long& size, unsigned long& count) {
  // Nothing is running and nothing will come: never wait for ever.
  if (!thread_.joinable() && !ended_.load()) return -1;
  semaphore_.semDown();
  std::lock_guard<std::mutex> lock(queueMutex_);
  if (queue_.empty()) {
    semaphore_.semUp();  // the end stays the end for a later call
    return -1;
  }
  const extdata* front = queue_.front();
  queue_.pop_front();
  ext = front->ext;
  size = front->size;
  count = front->count;
  return 0;
}

void CFileExt::getExtension(const std::string& path, std::string& ext) {
  const std::size_t slash = path.rfind('/');
  const std::size_t start = slash == std::string::npos ? 0 : slash + 1;
  ext = CensusWalk::extensionOf(path.data() + start, path.size() - start);
}

std::uint32_t CFileExt::getModTime(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0 || st.st_mtime < 0) return 0;
  return st.st_mtime > static_cast<time_t>(UINT32_MAX) ? UINT32_MAX
                                                       : static_cast<std::uint32_t>(st.st_mtime);
}

std::uint32_t CFileExt::getFileSize(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return 0;
  return CensusWalk::sizeKbOf(static_cast<std::uint64_t>(st.st_blocks));
}

void CFileExt::addExt(const extdata& record) {
  auto it = table_.find(record.ext);
  if (it != table_.end()) {
    std::lock_guard<std::mutex> lock(queueMutex_);
    it->second->size += record.size;
    it->second->count += 1;
    return;
  }
  auto copy = std::make_unique<extdata>(record);
  extdata* raw = copy.get();
  table_.emplace(record.ext, std::move(copy));
  {
    std::lock_guard<std::mutex> lock(queueMutex_);
    queue_.push_back(raw);
  }
  semaphore_.semUp();
}

void CFileExt::addTally(const CensusWalk::Tally& tally) {
  if (tally.files == 0) return;
  auto it = table_.find(tally.ext);
  if (it == table_.end()) {
    // Queued with its totals: a reader taking it at once sees final values,
    // since the walk hands over each extension whole.
    auto record = std::make_unique<extdata>(
        extdata{tally.ext, tally.sizeKb, static_cast<std::uint32_t>(tally.files - 1)});
    extdata* raw = record.get();
    table_.emplace(tally.ext, std::move(record));
    {
      std::lock_guard<std::mutex> lock(queueMutex_);
      queue_.push_back(raw);
    }
    semaphore_.semUp();
    return;
  }
  std::lock_guard<std::mutex> lock(queueMutex_);
  it->second->size += tally.sizeKb;
  it->second->count += static_cast<std::uint32_t>(tally.files);
}

void CFileExt::endOfResults() {
  ended_.store(true);
  semaphore_.semUp();
}
