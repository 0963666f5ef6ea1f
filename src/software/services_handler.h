// Startup items (10): the services and their state in batches of ten.
#pragma once

#include <cstdint>

#include "session/record_sink.h"
#include "software/named_list.h"

class CServices;
class Session;

// Beats on beatSocket (none when negative) while the services are
// collected, then sends. 0, or -1 once a block was refused or the pause
// said stop.
int sendServiceList(CServices& services, const RecordSink& sink, const BatchPause& pause,
                    int beatSocket);

void sendServiceData(Session& session, std::uint16_t code);
