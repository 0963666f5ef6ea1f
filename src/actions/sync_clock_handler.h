// Sync Clock (14): sets the system clock from the console's local time.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <functional>
#include <string>

class Session;

void syncClock(Session& session, std::uint16_t code);

// The Unix time set for the console's seconds since 1904 in its local
// time, given this host's offset from GMT in seconds (east positive). The
// offset's absolute value is added whatever its sign: right west of
// Greenwich, two offsets late east of it, as consoles have always had it.
std::int64_t clockTarget(std::uint32_t consoleSeconds, long gmtOffset);

// The reply's text for a settimeofday error number.
std::string clockFailureText(int error);

// settimeofday: 0 or the error number. Tests hand in a stand-in.
using ClockSetter = std::function<int(const timeval&)>;

void syncClock(Session& session, long gmtOffset, const ClockSetter& setClock);
