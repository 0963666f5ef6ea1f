// Throughput (24): for each local partition, a 1 MiB file written there,
// read back and streamed to the console, which times it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inventory/hd_info.h"

class Session;

void throughputTest(Session& session, std::uint16_t code);

// "/vltmp" on the root, MOUNT/vltmp elsewhere.
std::string throughputFilePath(const std::string& mountPoint);

// The test over the partitions given, in their order.
void throughputTest(Session& session, const std::vector<CHDInfo::partition>& partitions);
