// Volumes (4) and local Volumes (25): the mounted volumes in batches of ten.
#pragma once

#include <cstdint>

#include "session/record_sink.h"

class CHDInfo;
class Session;

// Every volume whose total size is not 0, and with command 25 only the
// local ones; the headers echo command. 0, or -1 once the sink refuses.
int sendVolumeList(CHDInfo& info, std::uint16_t command, const RecordSink& sink);

void sendVolumeData(Session& session, std::uint16_t code);
