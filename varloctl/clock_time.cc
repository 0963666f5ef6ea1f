#include "varloctl/clock_time.h"

#include <time.h>

#include <cstdio>

#include "varloctl/ctl_error.h"

namespace varloctl {
namespace {

constexpr std::int64_t k1904 = 2082844800;  // seconds from 1904 to 1970

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

unsigned daysInMonth(int y, unsigned m) {
  static const unsigned days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  return m == 2 && leap ? 29 : days[m - 1];
}

std::uint32_t fromWall(std::int64_t wallUnix, const std::string& text) {
  const std::int64_t s = wallUnix + k1904;
  if (s < 0 || s > 0xFFFFFFFFll)
    throw usageError("the time " + text + " lies outside 1904-01-01 to 2040-02-06");
  return static_cast<std::uint32_t>(s);
}

// Digits at text[at], exactly n of them.
bool digits(const std::string& text, std::size_t at, std::size_t n, int& v) {
  if (at + n > text.size()) return false;
  v = 0;
  for (std::size_t i = at; i < at + n; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    v = v * 10 + (text[i] - '0');
  }
  return true;
}

}  // namespace

std::int64_t systemLocalOffset(std::int64_t unixSeconds) {
  const time_t t = static_cast<time_t>(unixSeconds);
  tm local{};
  if (::localtime_r(&t, &local) == nullptr) return 0;
  return local.tm_gmtoff;
}

std::uint32_t clockSecondsFromIso(const std::string& text, const LocalOffset& offset) {
  const auto bad = [&text] {
    return usageError("the time must look like 2024-05-01T13:30:00, with Z or +02:00 after it "
                      "for a moment elsewhere, not '" + text + "'");
  };
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  if (!digits(text, 0, 4, y) || text.size() < 16 || text[4] != '-' || !digits(text, 5, 2, mo) ||
      text[7] != '-' || !digits(text, 8, 2, d) || (text[10] != 'T' && text[10] != ' ') ||
      !digits(text, 11, 2, h) || text[13] != ':' || !digits(text, 14, 2, mi))
    throw bad();
  std::size_t at = 16;
  if (at < text.size() && text[at] == ':') {
    if (!digits(text, at + 1, 2, s)) throw bad();
    at += 3;
  }
  if (mo < 1 || mo > 12 || d < 1 || static_cast<unsigned>(d) > daysInMonth(y, mo) || h > 23 ||
      mi > 59 || s > 59)
    throw bad();
  const std::int64_t asIfUtc = daysFromCivil(y, mo, d) * 86400 + h * 3600 + mi * 60 + s;
  if (at == text.size()) return fromWall(asIfUtc, text);

  std::int64_t zone = 0;
  if (text[at] == 'Z' && at + 1 == text.size()) {
    zone = 0;
  } else if (text[at] == '+' || text[at] == '-') {
    int zh = 0, zm = 0;
    const std::size_t rest = text.size() - at - 1;
    const bool colon = rest == 5 && text[at + 3] == ':';
    if (!digits(text, at + 1, 2, zh) || !(rest == 4 || colon) ||
        !digits(text, at + (colon ? 4 : 3), 2, zm) || zh > 23 || zm > 59)
      throw bad();
    zone = (text[at] == '-' ? -1 : 1) * (zh * 3600 + zm * 60);
  } else {
    throw bad();
  }
  const std::int64_t instant = asIfUtc - zone;
  return fromWall(instant + offset(instant), text);
}

std::uint32_t clockSecondsNow(const LocalOffset& offset) {
  const std::int64_t now = ::time(nullptr);
  return fromWall(now + offset(now), "now");
}

std::string clockSecondsText(std::uint32_t seconds) {
  const std::int64_t unix = static_cast<std::int64_t>(seconds) - k1904;
  std::int64_t days = unix / 86400, rest = unix % 86400;
  if (rest < 0) rest += 86400, --days;
  // The inverse of daysFromCivil.
  const std::int64_t z = days + 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  const std::int64_t y = static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2);
  char buf[40];
  std::snprintf(buf, sizeof buf, "%04lld-%02u-%02u %02lld:%02lld:%02lld",
                static_cast<long long>(y), m, d, static_cast<long long>(rest / 3600),
                static_cast<long long>(rest / 60 % 60), static_cast<long long>(rest % 60));
  return buf;
}

}  // namespace varloctl
