// The File Extension command (23): a census of the whole host by file-name
// extension, with a heartbeat showing the files counted while it runs.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>

#include "session/record_sink.h"
#include "varlo/software_records.h"

class CFileExt;
class Session;

void sendFileExtData(Session& session, std::uint16_t code);

// The oldest modification time counted for a request of `days` days
// (0 or less: every file).
std::uint32_t censusCutoff(std::int32_t days, std::time_t now);

// The heartbeat's files_scanned for a census that has counted this many:
// the count as it stood at its last multiple of 10.
std::uint32_t filesScannedOf(std::uint64_t counted);

// Runs the census under a heartbeat on socket (a header of
// heartbeatCommand, its files_scanned kept current), then sends the
// extensions census found behind File Extension headers: batches of ten,
// a pause after each full one, a closing header. run starts the census
// and fills in the files counted. 0, or -1 once the answer could not be
// delivered.
int answerCensus(CFileExt& census, const std::function<int(unsigned long& files)>& run,
                 std::uint16_t heartbeatCommand, int socket, const RecordSink& sink,
                 const std::function<bool()>& pause);
