// Shutdown (12) and Reboot (13): the answer goes out first, then the
// shutdown command runs in the background through bash (for its "&>").
#pragma once

#include <cstdint>
#include <functional>
#include <string>

class Session;

void shutdownSystem(Session& session, std::uint16_t code);

// The line bash runs for a reboot or a halt.
std::string shutdownCommandLine(bool reboot);

// Runs line with "/bin/bash -c" and returns the shell's exit status (or
// -1 when it could not run): tests hand in a stand-in.
using ShellRunner = std::function<int(const std::string& line)>;
int runShell(const std::string& line);

void shutdownSystem(Session& session, bool reboot, unsigned realUid, const ShellRunner& shell);
