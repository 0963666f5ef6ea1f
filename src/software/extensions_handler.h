// Extensions (8): the loaded kernel modules in batches of ten.
#pragma once

#include <cstdint>

#include "session/record_sink.h"
#include "software/named_list.h"

class CExtensions;
class Session;

// Beats on beatSocket (none when negative) while the modules are read, then
// sends. 0, or -1 once a block was refused or the pause said stop.
int sendExtensionList(CExtensions& extensions, const RecordSink& sink, const BatchPause& pause,
                      int beatSocket);

void sendExtensionData(Session& session, std::uint16_t code);
