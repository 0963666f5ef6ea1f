// Quit Process (15): SIGTERM, three seconds, SIGKILL, three seconds.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>

class Session;

void killProcess(Session& session, std::uint16_t code);

// kill(2): 0 or the error number. Tests hand in a stand-in.
using Signaller = std::function<int(pid_t pid, int signal)>;

// The grace given after each signal; a stop of the session cuts it short.
inline constexpr std::chrono::milliseconds kQuitGrace{3000};

void killProcess(Session& session, std::uint32_t pid, const Signaller& signal,
                 std::chrono::milliseconds grace = kQuitGrace);
