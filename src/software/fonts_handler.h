// Fonts (9): the font files' names in batches of ten.
#pragma once

#include <cstdint>

#include "session/record_sink.h"
#include "software/named_list.h"

class CFont;
class Session;

// Beats on beatSocket (none when negative) while fontconfig lists the
// fonts, then sends, each slot cleared first. 0, or -1 once a block was
// refused or the pause said stop.
int sendFontList(CFont& fonts, const RecordSink& sink, const BatchPause& pause, int beatSocket);

void sendFontData(Session& session, std::uint16_t code);
