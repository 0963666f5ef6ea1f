// Numbers from the command line, refused with a usage error naming `what`.
#pragma once

#include <cstdint>
#include <string_view>

namespace varloctl {

// Decimal, or hexadecimal with 0x; no sign, no blanks, at most max.
std::uint64_t parseUnsigned(std::string_view text, std::uint64_t max, std::string_view what);

// Seconds, fractions allowed ("0.5"), more than 0 and at most a day; the
// result in milliseconds, at least 1.
int parseSeconds(std::string_view text, std::string_view what);

}  // namespace varloctl
