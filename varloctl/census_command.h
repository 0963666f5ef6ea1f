// census [--days N]: the agent counts every file of its file system by
// extension (code 23), optionally only files modified in the last N days.
// While it counts, it sends heartbeat headers whose files_scanned grows;
// then the extensions in batches behind the same header.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "varlo/software_records.h"
#include "varloctl/command.h"

namespace varloctl {

class CensusCommand : public CommandOf<CensusCommand> {
 public:
  // Ten years; beyond that the filter filters nothing.
  static constexpr std::uint32_t kMaxDays = 3650;
  // Distinct extensions of at most four characters; only stops a runaway peer.
  static constexpr std::size_t kMaxExtensions = 1 << 20;

  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  // The day count of "--days N" among arguments, 0 (no filter) without it.
  static std::uint32_t days(const std::vector<std::string>& arguments);

  explicit CensusCommand(std::uint32_t days) : days_(days) {}
  std::uint16_t code() const override { return varlo::kFileExtensionCommand; }
  void setJson(bool json) override { json_ = json; }
  void setProgress(Progress* progress) override { progress_ = progress; }
  Value run(Session& session) override;

  // What one answer may hold in all, shared by the profiler's partitions;
  // only stops a runaway peer. Every batch but a heartbeat or the last
  // brings an extension, so these bound the batches too.
  struct Budget {
    std::size_t heartbeats = kMaxHeartbeats;
    std::size_t extensions = kMaxExtensions;
  };

  // One census answer: heartbeats, then batches up to the last. first: it
  // opens the command's reply (where a rejected password shows); where:
  // the partition, for the progress line.
  static std::vector<varlo::varlo_extension> receiveCensus(Session& session, Progress* progress,
                                                           bool first, std::string_view where,
                                                           Budget& budget);

  // The wire counts a file less than there are ("files" is the real
  // number); JSON also keeps the field as sent.
  static Value describe(const std::vector<varlo::varlo_extension>& extensions, bool json);

 private:
  std::uint32_t days_;
  bool json_ = false;
  Progress* progress_ = nullptr;
};

}  // namespace varloctl
