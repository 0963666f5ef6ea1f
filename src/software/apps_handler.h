// Applications (6): the installed applications in batches of ten, sent while
// CApps is still searching, each also written to a numbered list file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "session/record_sink.h"

class CApps;
class Session;

// Where the numbered list of the last answer is kept.
inline constexpr const char* kAppListPath = "/tmp/applist";

// Starts apps' search and sends what it finds: one line "N PATH" in listPath
// per application (written before its batch leaves), each full batch
// followed by pause() (false ends the answer), then the closing header with
// the rest. 0, or -1 once the sink refused a block, the pause said stop or
// the search was stopped; no closing header follows then.
int sendAppList(CApps& apps, const RecordSink& sink, const std::function<bool()>& pause,
                const std::string& listPath = kAppListPath);

void sendAppsData(Session& session, std::uint16_t code);
