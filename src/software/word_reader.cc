#include "software/word_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

// The C locale's white space, as a stream's >> skips it.
bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

constexpr int kPollMillis = 100;

}  // namespace

WordReader::WordReader(UniqueFd fd, std::size_t maxWord, std::stop_token stop,
                       std::size_t block)
    : fd_(std::move(fd)), maxWord_(maxWord), stop_(std::move(stop)) {
  if (fd_.valid()) buffer_.resize(std::max<std::size_t>(block, 1));
}

WordReader WordReader::openFile(const std::string& path, std::size_t maxWord,
                                std::stop_token stop) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat st {};
  if (fd.valid() && (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))) fd.reset();
  // Most package lists are a few kilobytes: no need for a whole block each.
  const auto size = static_cast<std::size_t>(std::max<off_t>(st.st_size, 0));
  WordReader reader(std::move(fd), maxWord, std::move(stop), std::min(size + 1, kBlock));
  reader.regularFile_ = true;
  return reader;
}

bool WordReader::fill() {
  if (eof_ || !fd_.valid()) return false;
  for (;;) {
    if (stop_.stop_requested()) return false;
    // A pipe may stay silent; a regular file never keeps a read waiting.
    if (stop_.stop_possible() && !regularFile_) {
      pollfd p{fd_.get(), POLLIN, 0};
      const int ready = ::poll(&p, 1, kPollMillis);
      if (ready == 0 || (ready < 0 && errno == EINTR)) continue;
    }
    const ssize_t n = ::read(fd_.get(), buffer_.data(), buffer_.size());
    if (n > 0) {
      pos_ = 0;
      end_ = static_cast<std::size_t>(n);
      return true;
    }
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n < 0) error_ = errno;
    eof_ = true;
    return false;
  }
}

bool WordReader::next(std::string& word) {
  word.clear();
  // Skip the blanks before the word.
  for (;;) {
    while (pos_ < end_ && isBlank(buffer_[pos_])) ++pos_;
    if (pos_ < end_) break;
    if (!fill()) return false;
  }
  for (;;) {
    const std::size_t start = pos_;
    while (pos_ < end_ && !isBlank(buffer_[pos_])) ++pos_;
    const std::size_t room = maxWord_ + 1 > word.size() ? maxWord_ + 1 - word.size() : 0;
    word.append(buffer_.data() + start, std::min(pos_ - start, room));
    if (pos_ < end_) return true;
    // The word may go on in the next block; a stop or an error ends it here.
    if (!fill()) return !stop_.stop_requested() && error_ == 0;
  }
}

bool WordReader::rewind() {
  if (!fd_.valid() || ::lseek(fd_.get(), 0, SEEK_SET) != 0) return false;
  pos_ = end_ = 0;
  eof_ = false;
  error_ = 0;
  return true;
}
