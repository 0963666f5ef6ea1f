// Processes (3): every process in batches of ten.
#pragma once

#include <cstdint>

#include "session/record_sink.h"

class CProcessInfo;
class Session;

// Collects with info.enumProcesses(), then sends each batch of ten as two
// blocks, the list header and its entries, and closes with a header whose
// last byte is 1 (its entries, if any, after it). 0, or -1 as soon as the
// sink refuses a block.
int sendProcessList(CProcessInfo& info, const RecordSink& sink);

void sendProcessData(Session& session, std::uint16_t code);
