#include "base/util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "base/small_file.h"
#include "prefs/des_cipher.h"

namespace {

// Reads a 16-bit version field; text that does not start with a number gives 0.
unsigned short readVersionField(std::stringstream& ss, const std::string& text) {
  Util::clearStream(ss);
  ss << text;
  unsigned short value = 0;
  ss >> value;
  return value;
}

}  // namespace

bool Util::isDir(std::string path) {
  struct stat st{};
  if (stat(path.c_str(), &st) != 0) {
    const int err = errno;
    throw "Error getting stats for file.  File: " + path + " Error: " + std::to_string(err);
  }
  // The directory type bit alone, as callers have always tested it.
  return (st.st_mode & 0x4000) != 0;
}

int Util::makeDir(std::string path, bool recursive) {
  if (!recursive) {
    if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) return errno;
    return 0;
  }
  // Only the ancestors: the last component is taken to be a file name.
  std::string::size_type s = (path.compare(0, 2, "./") == 0) ? 1 : 0;
  for (;;) {
    const std::string::size_type p = path.find('/', s + 1);
    if (p == std::string::npos) return 0;
    const std::string prefix = path.substr(0, p);
    if (mkdir(prefix.c_str(), 0777) != 0 && errno != EEXIST) return errno;
    s = p;
  }
}

DIR* Util::openDir(const std::string& path) {
  DIR* d = opendir(path.c_str());
  if (d == nullptr) {
    const int err = errno;
    throw "Error opening directory: " + path + " Error: " + std::to_string(err);
  }
  return d;
}

int Util::getNextFile(DIR* dir, std::string& name) {
  if (dir == nullptr) {
    errno = EBADF;
    return -1;
  }
  // readdir only sets errno on failure, so a clean end leaves it at 0.
  errno = 0;
  const struct dirent* entry = readdir(dir);
  if (entry != nullptr) {
    name = entry->d_name;
    return 0;
  }
  return errno == 0 ? 1 : -1;
}

bool Util::isProcessDir(std::string name, const std::string& procRoot) {
  if (!isDir(procRoot + "/" + name)) return false;
  std::stringstream ss(name);
  int pid = 0;
  ss >> pid;
  return !ss.fail();
}

bool Util::isNonExeFile(const std::string& name) {
  static const char* const kMarks[] = {".so", ".la", ".o", ".a", ".xml", ".jpg", ".png"};
  return std::any_of(std::begin(kMarks), std::end(kMarks), [&](const char* mark) {
    return name.find(mark) != std::string::npos;
  });
}

void Util::convertVersiontoLong(const std::string& v, unsigned long& out) {
  using size_type = std::string::size_type;
  out = 0;
  std::stringstream ss;

  // Positions wrap through npos on purpose: with no '.' the next search starts
  // again at 0, which is how "2.1" comes to read its patch from the major.
  const size_type d1 = v.find('.');
  const unsigned short major = readVersionField(ss, v.substr(0, d1));

  const size_type d2 = v.find('.', d1 + 1);
  const unsigned short minor = readVersionField(ss, v.substr(d1 + 1, d2 - d1 - 1));

  unsigned short patch = 0;
  const size_type patchStart = d2 + 1;
  const size_type q = v.find_first_not_of("0123456789", patchStart);
  if (q != std::string::npos) patch = readVersionField(ss, v.substr(patchStart, q - patchStart));

  // 16-bit fields 8 bits apart, unmasked: a field above 255 spills into the next.
  out = ((static_cast<unsigned long>(major) << 8 | minor) << 8) | patch;
}

int Util::isValidIP(unsigned long ip) {
  static constexpr unsigned long kMasks[] = {0x00000000, 0x7F000001, 0x00FFFFFF};
  for (const unsigned long mask : kMasks) {
    if ((ip | mask) == mask) return 0;
  }
  return 1;
}

void Util::formatEthAddr(const unsigned char* addr, char* out) {
  if (addr == nullptr || out == nullptr) return;
  std::snprintf(out, 18, "%02x:%02x:%02x:%02x:%02x:%02x", addr[0], addr[1], addr[2], addr[3],
                addr[4], addr[5]);
}

void Util::CtoPString(const char* src, char* dst, int max) {
  if (src == nullptr || dst == nullptr || max < 1) return;
  // The length byte cannot count past 255.
  const int limit = std::min(max, 256) - 1;
  int i = 0;
  while (i < limit && src[i] != '\0') {
    dst[i + 1] = src[i];
    ++i;
  }
  dst[0] = static_cast<char>(static_cast<unsigned char>(i));
}

void Util::PtoCString(const char* src, char* dst, int max) {
  if (src == nullptr || dst == nullptr) return;
  const int len = static_cast<unsigned char>(src[0]);
  for (int i = 0; i < len && i < max; ++i) dst[i] = src[i + 1];
  dst[len] = '\0';
}

int Util::UnicodeToASCII(const std::uint16_t* src, unsigned long count, char* dst,
                         unsigned long size) {
  if (src == nullptr || dst == nullptr || size == 0) return 0;
  std::memset(dst, 0, size);
  const unsigned long n = std::min(count, size - 1);
  for (unsigned long i = 0; i < n; ++i) dst[i] = static_cast<char>(src[i] & 0xFF);
  return 0;
}

void Util::getLinuxVersion(std::string& version, std::string& distro,
                           const std::string& versionFile) {
  const auto banner = readSmallFile(versionFile, 512);
  if (!banner) {
    const int err = errno;
    throw "Could not open /proc/version.  Error: " + std::to_string(err);
  }
  parseLinuxVersion(*banner, version, distro);
}

void Util::parseLinuxVersion(const std::string& banner, std::string& version,
                             std::string& distro) {
  // The banner is text: stop at an embedded NUL as a C string would.
  std::string text = banner;
  text.resize(std::strlen(text.c_str()));

  version.clear();
  distro = "*nix";

  using size_type = std::string::size_type;
  const size_type sp1 = text.find(' ');
  if (sp1 == std::string::npos) return;
  const size_type sp2 = text.find(' ', sp1 + 1);
  if (sp2 == std::string::npos) return;
  const size_type start = sp2 + 1;
  const size_type sp3 = text.find(' ', start);
  if (sp3 == std::string::npos) {
    version = text.substr(start);
    return;
  }
  version = text.substr(start, sp3 - start);

  // Builder, then compiler, then the distribution named inside the compiler's
  // parentheses: the third '(' is the one wanted on a usual banner.
  size_type lparen = start;
  for (int pass = 0; pass < 3; ++pass) {
    lparen = text.find('(', pass == 0 ? lparen : lparen + 1);
    if (lparen == std::string::npos) {
      distro = text.substr(0, text.find(')'));
      break;
    }
    const size_type rparen = text.find(')', lparen + 1);
    distro = text.substr(lparen + 1,
                         rparen == std::string::npos ? std::string::npos : rparen - lparen - 1);
  }
}

void Util::clearStream(std::stringstream& s) {
  s.str("");
  s.clear();
}

void Util::Encrypt(const char* in, char* out, int len) {
  DesCipher::instance().encrypt(reinterpret_cast<const std::uint8_t*>(in),
                                reinterpret_cast<std::uint8_t*>(out), len);
}

void Util::Decrypt(const char* in, char* out, int len) {
  DesCipher::instance().decrypt(reinterpret_cast<const std::uint8_t*>(in),
                                reinterpret_cast<std::uint8_t*>(out), len);
}
