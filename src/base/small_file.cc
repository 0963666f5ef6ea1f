#include "base/small_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/unique_fd.h"

std::optional<std::string> readSmallFile(const std::string& path, std::size_t maxBytes) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd.valid()) return std::nullopt;
  std::string data;
  char buf[4096];
  while (data.size() < maxBytes) {
    const ssize_t n = ::read(fd.get(), buf, std::min(sizeof buf, maxBytes - data.size()));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && data.empty()) return std::nullopt;
    if (n <= 0) break;
    data.append(buf, static_cast<std::size_t>(n));
  }
  return data;
}

std::optional<std::string> readFirstLine(const std::string& path, std::size_t maxBytes) {
  auto text = readSmallFile(path, maxBytes);
  if (text) text->resize(std::min(text->find('\n'), text->size()));
  return text;
}
