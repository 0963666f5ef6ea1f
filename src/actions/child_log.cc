#include "actions/child_log.h"

#include <unistd.h>

#include <cstring>

namespace child_log {

void put(int fd, const char* text) {
  if (fd < 0) return;
  for (std::size_t len = std::strlen(text); len > 0;) {
    const ssize_t n = ::write(fd, text, len);
    if (n <= 0) return;
    text += n;
    len -= static_cast<std::size_t>(n);
  }
}

void putLine(int fd, const char* text, long number) {
  char digits[24];
  char* p = digits + sizeof digits;
  *--p = '\0';
  *--p = '\n';
  const bool negative = number < 0;
  unsigned long v = negative ? 0UL - static_cast<unsigned long>(number) : static_cast<unsigned long>(number);
  do *--p = static_cast<char>('0' + v % 10);
  while ((v /= 10) != 0);
  if (negative) *--p = '-';
  put(fd, text);
  put(fd, p);
}

}  // namespace child_log
