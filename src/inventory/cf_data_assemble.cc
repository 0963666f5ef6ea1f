#include "inventory/cf_data_assemble.h"

#include <cctype>
#include <cstdio>
#include <string>

namespace {

bool printable(std::uint8_t c) { return std::isprint(c) != 0; }
bool extended(std::uint8_t c) { return c >= 0x80 && c <= 0xFE && !printable(c); }

bool looksLikeText(std::span<const std::uint8_t> data) {
  if (data.size() == 1) return false;  // a lone byte is a number
  std::size_t printables = 0;
  std::size_t extendeds = 0;
  for (const std::uint8_t c : data) {
    if (c == 0) continue;
    if (printable(c)) {
      ++printables;
    } else if (extended(c)) {
      ++extendeds;
    } else {
      return false;  // a control character or 0xFF: binary
    }
  }
  return printables > 0 && extendeds <= printables / 4;
}

}  // namespace

void CFDataAssemble(std::span<const std::uint8_t> data, std::array<char, 255>& out) {
  std::string text;
  if (looksLikeText(data)) {
    // Runs of characters, each ended by one zero byte; a second zero (or a
    // leading one) ends the list.
    bool inRun = false;
    for (const std::uint8_t c : data) {
      if (text.size() >= out.size() - 1) break;
      if (c == 0) {
        if (!inRun) break;
        inRun = false;
        continue;
      }
      if (!inRun && !text.empty()) text += ',';
      inRun = true;
      text += static_cast<char>(c);
    }
  } else {
    static constexpr char kDigits[] = "0123456789abcdef";
    for (const std::uint8_t c : data) {
      if (text.size() >= out.size() - 1) break;
      text += kDigits[c >> 4];
      text += kDigits[c & 0x0F];
    }
  }
  std::snprintf(out.data(), out.size(), "%s", text.c_str());
}
