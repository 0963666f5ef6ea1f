// Control panels (7): the settings tools in batches of ten.
#pragma once

#include <cstdint>

#include "session/record_sink.h"
#include "software/named_list.h"

class CCtrlPanels;
class Session;

// Collects, then sends; no heartbeat (the desktop entries are read fast).
// 0, or -1 once a block was refused or the pause said stop.
int sendControlsList(CCtrlPanels& panels, const RecordSink& sink, const BatchPause& pause);

void sendControlsData(Session& session, std::uint16_t code);
