#include "varloctl/numbers.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>

#include "varloctl/ctl_error.h"

namespace varloctl {

std::uint64_t parseUnsigned(std::string_view text, std::uint64_t max, std::string_view what) {
  const std::string bad = std::string(what) + " must be a number from 0 to " + std::to_string(max) +
                          ", not '" + std::string(text) + "'";
  int base = 10;
  std::string_view digits = text;
  if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
    base = 16;
    digits.remove_prefix(2);
  }
  std::uint64_t v = 0;
  const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), v, base);
  if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size() || v > max)
    throw usageError(bad);
  return v;
}

int parseSeconds(std::string_view text, std::string_view what) {
  const std::string s(text);
  const std::string bad = std::string(what) +
                          " must be a number of seconds above 0 and at most "
                          "86400, not '" +
                          s + "'";
  // strtod alone would take "inf", "nan", hex floats and leading blanks.
  if (s.empty() || s.find_first_not_of("0123456789.") != std::string::npos) throw usageError(bad);
  char* end = nullptr;
  const double seconds = std::strtod(s.c_str(), &end);
  if (end != s.c_str() + s.size() || !(seconds > 0) || seconds > 86400) throw usageError(bad);
  const long ms = std::lround(seconds * 1000);
  return ms < 1 ? 1 : static_cast<int>(ms);
}

}  // namespace varloctl
