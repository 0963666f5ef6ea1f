// cpuinfo text as the processor type and speed are read from it. The type
// is one of three codes and follows the names in the text; the speed is
// the first "cpu MHz" value in hertz, checked against the same decimal
// number read as a long double.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "inventory/cpu_info_linux.h"

namespace {

constexpr std::uint64_t kCap = 0xFFFFFFFF;

std::string_view trimmedBlanks(std::string_view s) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

// Digits, then optionally a point and more digits.
bool isDecimal(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i;
  if (i == 0) return false;
  if (i == s.size()) return true;
  if (s[i++] != '.') return false;
  for (; i < s.size(); ++i)
    if (s[i] < '0' || s[i] > '9') return false;
  return true;
}

void checkType(std::string_view text) {
  const long type = cpuTypeOfText(text);
  if (type != 0 && type != kIntelCoreDuo && type != kIntelCore) __builtin_trap();
  // Only the first 4096 bytes count; the plain names there always match.
  const std::string_view head = text.substr(0, 4096);
  if (head.find("Intel Core Duo") != std::string_view::npos && type != kIntelCoreDuo)
    __builtin_trap();
  if (head.find("Intel Core") != std::string_view::npos && type == 0) __builtin_trap();
  // Nothing past the head changes the answer.
  if (text.size() > head.size() && cpuTypeOfText(head) != type) __builtin_trap();
}

// The value of one "cpu MHz" line holding the input.
void checkSpeedValue(std::string_view value) {
  const std::string text = "processor\t: 0\ncpu MHz\t\t: " + std::string(value) + "\n";
  const auto hz = cpuSpeedOfCpuinfo(text);
  // The line ends at the first line break of the value.
  const std::string_view field = trimmedBlanks(value.substr(0, value.find('\n')));
  if (!isDecimal(field)) {
    if (hz) __builtin_trap();
    return;
  }
  if (!hz) __builtin_trap();
  const std::string number(field);
  const long double mhz = std::strtold(number.c_str(), nullptr);
  const std::string whole = number.substr(0, number.find('.'));
  const std::size_t digits = whole.size() - std::min(whole.find_first_not_of('0'), whole.size());
  if (digits > 10 || std::strtoull(whole.c_str(), nullptr, 10) > kCap) {
    // More megahertz than the field holds hertz: the cap.
    if (*hz != kCap) __builtin_trap();
    return;
  }
  // Fractions finer than a hertz are dropped.
  const long double exact = mhz * 1000000.0L;
  const long double got = static_cast<long double>(*hz);
  if (got > exact + 0.01L || got + 1.01L < exact) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  checkType(text);
  const auto hz = cpuSpeedOfCpuinfo(text);
  if (hz && text.find("cpu MHz") == std::string_view::npos) __builtin_trap();
  if (hz && *hz > kCap * 1000000 + 999999) __builtin_trap();
  checkSpeedValue(text);
  return 0;
}
