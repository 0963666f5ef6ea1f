// The time Sync Clock sends: the console's local wall-clock time in seconds
// since 1904-01-01 00:00:00.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace varloctl {

// The local time's offset from UTC, in seconds, at a Unix time.
using LocalOffset = std::function<std::int64_t(std::int64_t unixSeconds)>;

// The offset of this process's time zone (TZ), from localtime_r.
std::int64_t systemLocalOffset(std::int64_t unixSeconds);

// "2024-05-01T13:30[:00]" (a local time, taken as it is) or with "Z" or
// "+02:00" / "-0500" after it (a moment, shown in the local time); "T" or
// a blank between date and time. A usage error when it is not such a time
// or lies outside 1904 to 2040.
std::uint32_t clockSecondsFromIso(const std::string& text, const LocalOffset& offset);

// The local time now.
std::uint32_t clockSecondsNow(const LocalOffset& offset);

// 0 -> "1904-01-01 00:00:00".
std::string clockSecondsText(std::uint32_t seconds);

}  // namespace varloctl
