// Hard Disk (26): the fixed disks in batches of ten.
#pragma once

#include <cstdint>

#include "session/record_sink.h"

class CHDInfo;
class Session;

// Every disk whose size is not 0. 0, or -1 once the sink refuses a block.
int sendDiskList(CHDInfo& info, const RecordSink& sink);

void sendDiskData(Session& session, std::uint16_t code);
