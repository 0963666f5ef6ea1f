// The Backup Profiler command (30): one census per local partition, each
// behind the partition's volume record, a census never crossing into
// another partition.
#pragma once

#include <cstdint>

class Session;

void runBackupProfiler(Session& session, std::uint16_t code);
