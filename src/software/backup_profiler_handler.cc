#include "software/backup_profiler_handler.h"

#include <ctime>

#include "inventory/hd_info.h"
#include "inventory/mount_table.h"
#include "session/session.h"
#include "software/bprofiler.h"
#include "software/census_gates.h"
#include "software/file_ext_handler.h"
#include "varlo/volume_records.h"

namespace {

constexpr std::chrono::milliseconds kBatchPause{10};

// The partition's volume record, then its census.
int answerPartition(Session& session, const CHDInfo::partition& p,
                    const std::vector<MountEntry>& mounts, std::uint32_t cutoff) {
  using varlo::varlo_list_header;
  const RecordSink sink = session.sink();
  const auto header =
      varlo_list_header{varlo::ReplyPrefix{varlo::kBackupProfilerCommand, true, false, 0}, 0, 1}
          .encode();
  if (sink(header.data(), header.size()) != 0) return -1;
  varlo::varlo_volume volume;
  volume.name = p.name;
  volume.total = varlo::varlo_volume::units(p.totalBytes);
  volume.free = varlo::varlo_volume::units(p.freeBytes);
  const auto record = volume.encode();
  if (sink(record.data(), record.size()) != 0) return -1;

  CensusWalk::Options options;
  options.gates = CensusGates::forPartition(mounts, p.path);
  options.stop = session.stopToken();
  CBProfiler profiler(std::move(options));
  return answerCensus(
      profiler.fileExt(),
      [&](unsigned long& files) { return profiler.collectExtensions(p.path, cutoff, files); },
      varlo::kBackupProfilerCommand, session.socket(), sink,
      [&session] { return session.waitFor(kBatchPause); });
}

}  // namespace

void runBackupProfiler(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  varlo::varlo_extensions_request::Bytes request{};
  if (session.ReceiveData(request) != 0) return;
  const std::uint32_t cutoff =
      censusCutoff(varlo::varlo_extensions_request::decode(request).days, std::time(nullptr));

  const HostRoots roots;
  CHDInfo disks(roots, MountProbe::system(session.stopToken()));
  disks.enumPartitions(true);
  const std::vector<MountEntry> mounts = MountTable::read(roots);
  CHDInfo::partition p;
  while (disks.getNextPartition(p) == 0) {
    // An unreachable partition was sent with size 0 by Volumes: skipped here.
    if (!p.local || p.totalBytes == 0) continue;
    session.log("Sending partition");
    session.log(p.name);
    // A console that has gone is not worth another disk's walk.
    if (answerPartition(session, p, mounts, cutoff) != 0) return;
  }
  const auto last =
      varlo::varlo_list_header{varlo::ReplyPrefix{varlo::kBackupProfilerCommand, true, true, 0}, 0,
                               0}
          .encode();
  session.SendData(last);
}
