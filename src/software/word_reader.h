// The whitespace-separated words of a file or a pipe, read in large blocks:
// the package lists run to a hundred thousand paths, and a word at a time
// through a stream costs more than the stat calls they feed.
#pragma once

#include <cstddef>
#include <stop_token>
#include <string>
#include <vector>

#include "base/unique_fd.h"

class WordReader {
 public:
  static constexpr std::size_t kBlock = 256 * 1024;

  // Reads fd (owned) to its end. A word longer than maxWord is handed out
  // cut to maxWord + 1 bytes, so the caller can tell it from any real one
  // and memory stays bounded on a file without a blank. A stop request ends
  // the words at the next block (a silent pipe is polled, not waited on).
  WordReader(UniqueFd fd, std::size_t maxWord, std::stop_token stop = {},
             std::size_t block = kBlock);

  // Opens a regular file, close-on-exec; an invalid fd in the reader when
  // it cannot be opened or is not a regular file (a FIFO cannot stall it).
  static WordReader openFile(const std::string& path, std::size_t maxWord,
                             std::stop_token stop = {});

  bool valid() const { return fd_.valid(); }

  // True with the next word; false at the end, on a read error or on a stop.
  bool next(std::string& word);

  // Back to the first word of a regular file; false on a pipe.
  bool rewind();

  // The errno of a failed read, else 0.
  int error() const { return error_; }

 private:
  bool fill();

  UniqueFd fd_;
  std::size_t maxWord_;
  std::stop_token stop_;
  std::vector<char> buffer_;
  std::size_t pos_ = 0;
  std::size_t end_ = 0;
  bool eof_ = false;
  int error_ = 0;
  bool regularFile_ = false;
};
