// Sends a list of named entries (control panels, extensions, fonts,
// services) in batches of ten with a pause between batches.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "session/record_sink.h"

// Fills a (name, version) pair and returns 0, or -1 at the end.
using NextNamed = std::function<int(std::string& name, std::string& version)>;
// Runs after each full batch; false stops the answer there.
using BatchPause = std::function<bool()>;

// Numbers the entries from 1. clearSlots: each slot is zeroed before it is
// filled; otherwise bytes behind a shorter string keep an earlier batch's.
// 0, or -1 once a block was refused or the pause said stop (no closing
// header then).
int sendNamedList(std::uint16_t command, const RecordSink& sink, const BatchPause& pause,
                  bool clearSlots, const NextNamed& next);
