// The kernel banner (/proc/version) and the release text the system
// version is made of. The release is the banner's third word; the
// distribution is text of the banner or the default; the system version is
// four decimal digits and, for a release of plain numbers, those numbers.
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/util.h"
#include "inventory/config_info.h"

namespace {

void checkBanner(const std::string& text) {
  const std::string banner = text.substr(0, text.find('\0'));
  std::string version = "stale", distro = "stale";
  Util::parseLinuxVersion(text, version, distro);
  if (distro != "*nix" && banner.find(distro) == std::string::npos) __builtin_trap();
  const std::size_t sp1 = banner.find(' ');
  const std::size_t sp2 = sp1 == std::string::npos ? sp1 : banner.find(' ', sp1 + 1);
  if (sp2 == std::string::npos) {
    if (!version.empty() || distro != "*nix") __builtin_trap();
    return;
  }
  const std::size_t end = banner.find(' ', sp2 + 1);
  if (version != banner.substr(sp2 + 1, end == std::string::npos ? end : end - sp2 - 1))
    __builtin_trap();
}

// The release's leading numbers (up to three, separated by points) when
// none has more than three digits past its leading zeros, or is followed by
// a point and no number.
bool plainRelease(const std::string& text, unsigned (&parts)[3]) {
  parts[0] = parts[1] = parts[2] = 0;
  std::size_t pos = 0;
  for (int i = 0; i < 3; ++i) {
    std::size_t digits = 0, significant = 0;
    unsigned value = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      value = value * 10 + static_cast<unsigned>(text[pos++] - '0');
      ++digits;
      if (value != 0 && ++significant > 3) return false;
    }
    if (digits == 0) return false;
    parts[i] = value;
    // Whatever follows the third number, or a number not followed by a
    // point, is no part of the version.
    if (i == 2 || pos == text.size() || text[pos] != '.') return true;
    ++pos;
  }
  return true;
}

void checkRelease(const std::string& text) {
  const std::uint32_t v = CConfigInfo::systemVersionOf(text);
  for (int shift = 0; shift < 32; shift += 4)
    if (((v >> shift) & 15) > (shift < 16 ? 9u : 0u)) __builtin_trap();
  // A release that does not start with a digit has no version.
  if ((text.empty() || text[0] < '0' || text[0] > '9') && v != 0) __builtin_trap();
  unsigned parts[3];
  if (!plainRelease(text, parts)) return;
  const unsigned major = parts[0] % 100;
  const unsigned minor = parts[1] > 9 ? 9 : parts[1];
  const unsigned patch = parts[2] > 9 ? 9 : parts[2];
  if (v != (((major / 10) << 12) | ((major % 10) << 8) | (minor << 4) | patch)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkBanner(text);
  checkRelease(text);
  return 0;
}
