#include "software/file_ext_handler.h"

#include "inventory/mount_probe.h"
#include "inventory/mount_table.h"
#include "intake/heartbeat.h"
#include "session/list_batches.h"
#include "session/session.h"
#include "software/census_gates.h"
#include "software/file_ext.h"

namespace {

constexpr std::chrono::milliseconds kBatchPause{10};

}  // namespace

std::uint32_t censusCutoff(std::int32_t days, std::time_t now) {
  if (days <= 0) return 0;
  const std::int64_t cutoff = static_cast<std::int64_t>(now) - std::int64_t{days} * 86400;
  // Further back than 1970: every file is younger.
  if (cutoff <= 0) return 0;
  return cutoff > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(cutoff);
}

std::uint32_t filesScannedOf(std::uint64_t counted) {
  return static_cast<std::uint32_t>(counted - counted % 10);
}

int answerCensus(CFileExt& census, const std::function<int(unsigned long& files)>& run,
                 std::uint16_t heartbeatCommand, int socket, const RecordSink& sink,
                 const std::function<bool()>& pause) {
  using varlo::varlo_extensions;
  varlo_extensions beatHeader;
  beatHeader.prefix = varlo::ReplyPrefix{heartbeatCommand, true, false, 0};
  const auto block = beatHeader.encode();

  unsigned long files = 0;
  int result = 0;
  {
    CHeartBeat beat(socket);
    beat.startHeartbeat(block.data(), block.size(), [&census](std::uint8_t* b) {
      varlo::putU32(b + varlo_extensions::FilesScanned::offset,
                    filesScannedOf(census.filesCounted()));
    });
    result = run(files);
    beat.stopHeartbeat();
  }

  ListBatches<varlo::varlo_extension, varlo_extensions> batches(varlo::kFileExtensionCommand, sink);
  batches.header().filesScanned = static_cast<std::uint32_t>(files);
  batches.setPause(pause);
  if (result == 0) {
    std::string ext;
    unsigned long size = 0, count = 0;
    while (census.getNextFileExt(ext, size, count) == 0) {
      const varlo::varlo_extension entry{ext, static_cast<std::uint32_t>(size),
                                         static_cast<std::uint32_t>(count)};
      if (batches.add(entry) != 0) return -1;
    }
  }
  return batches.finish();
}

void sendFileExtData(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  varlo::varlo_extensions_request::Bytes request{};
  if (session.ReceiveData(request) != 0) return;
  const auto days = varlo::varlo_extensions_request::decode(request).days;

  CensusWalk::Options options;
  options.gates = CensusGates::forHost(MountTable::read(HostRoots{}));
  // Another disk's mount is entered only once it has answered, and never
  // waited on longer than the probe's bound.
  options.reachable = [stop = session.stopToken()](const std::string& path) {
    const auto answer = CMountProbe::instance().isDirectory(path, stop);
    return answer.ok() && answer.value;
  };
  options.stop = session.stopToken();
  CFileExt census("/", std::move(options));
  const std::uint32_t cutoff = censusCutoff(days, std::time(nullptr));
  answerCensus(
      census, [&](unsigned long& files) { return census.enumFileExts(files, cutoff); },
      varlo::kFileExtensionCommand, session.socket(), session.sink(),
      [&session] { return session.waitFor(kBatchPause); });
}
