#include "varloctl/package_archive.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace varloctl {
namespace {

constexpr std::size_t kBlock = 512;
constexpr std::size_t kStoredMax = 65535;  // a stored deflate block's length is 16 bits

// A number in an octal field of width bytes, NUL-terminated.
void octal(std::uint8_t* field, std::size_t width, std::uint64_t v) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "%0*llo", static_cast<int>(width - 1),
                static_cast<unsigned long long>(v));
  std::memcpy(field, buf, width - 1);
  field[width - 1] = 0;
}

void tarHeader(std::vector<std::uint8_t>& out, const std::string& name, bool folder,
               std::uint64_t size, std::int64_t mtime) {
  std::array<std::uint8_t, kBlock> h{};
  std::memcpy(h.data(), name.data(), name.size());
  octal(h.data() + 100, 8, folder ? 0755 : 0644);
  octal(h.data() + 108, 8, 0);
  octal(h.data() + 116, 8, 0);
  octal(h.data() + 124, 12, size);
  octal(h.data() + 136, 12, static_cast<std::uint64_t>(mtime < 0 ? 0 : mtime));
  h[156] = folder ? '5' : '0';
  std::memcpy(h.data() + 257, "ustar", 6);
  std::memcpy(h.data() + 263, "00", 2);
  std::memcpy(h.data() + 265, "root", 4);
  std::memcpy(h.data() + 297, "root", 4);
  // The checksum counts its own field as blanks.
  std::memset(h.data() + 148, ' ', 8);
  unsigned sum = 0;
  for (std::uint8_t b : h) sum += b;
  octal(h.data() + 148, 7, sum);
  h[155] = ' ';
  out.insert(out.end(), h.begin(), h.end());
}

void le32(std::vector<std::uint8_t>& out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

}  // namespace

std::uint32_t crc32(const std::uint8_t* data, std::size_t len, std::uint32_t crc) {
  static const auto table = [] {
    std::array<std::uint32_t, 256> t{};
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  crc = ~crc;
  for (std::size_t i = 0; i < len; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

std::vector<std::uint8_t> packageArchive(const std::string& name,
                                         const std::vector<std::uint8_t>& package,
                                         std::int64_t mtime) {
  std::vector<std::uint8_t> tar;
  tar.reserve(package.size() + 4 * kBlock);
  tarHeader(tar, "Varlo.pkg/", true, 0, mtime);
  tarHeader(tar, "Varlo.pkg/" + name, false, package.size(), mtime);
  tar.insert(tar.end(), package.begin(), package.end());
  tar.resize((tar.size() + kBlock - 1) / kBlock * kBlock + 2 * kBlock, 0);  // padding, end mark

  std::vector<std::uint8_t> gz = {0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 3};  // deflate, Unix
  gz.reserve(tar.size() + tar.size() / kStoredMax * 5 + 32);
  for (std::size_t at = 0; at < tar.size(); at += kStoredMax) {
    const std::size_t n = std::min(kStoredMax, tar.size() - at);
    gz.push_back(at + n == tar.size() ? 1 : 0);  // BFINAL, BTYPE 00: stored
    gz.push_back(static_cast<std::uint8_t>(n));
    gz.push_back(static_cast<std::uint8_t>(n >> 8));
    gz.push_back(static_cast<std::uint8_t>(~n));
    gz.push_back(static_cast<std::uint8_t>(~n >> 8));
    gz.insert(gz.end(), tar.begin() + static_cast<std::ptrdiff_t>(at),
              tar.begin() + static_cast<std::ptrdiff_t>(at + n));
  }
  le32(gz, crc32(tar.data(), tar.size()));
  le32(gz, static_cast<std::uint32_t>(tar.size()));
  return gz;
}

}  // namespace varloctl
