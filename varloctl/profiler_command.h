// profiler [--days N]: the census of each mounted partition (code 30). Per
// partition the agent sends a list header with one volume record, then a
// census answer (heartbeats, batches, the last); a list header marked last
// ends the whole answer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "varlo/software_records.h"
#include "varlo/volume_records.h"
#include "varloctl/command.h"

namespace varloctl {

class ProfilerCommand : public CommandOf<ProfilerCommand> {
 public:
  // Mounted partitions; only stops a runaway peer.
  static constexpr std::size_t kMaxPartitions = 4096;

  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);

  explicit ProfilerCommand(std::uint32_t days) : days_(days) {}
  std::uint16_t code() const override { return varlo::kBackupProfilerCommand; }
  void setJson(bool json) override { json_ = json; }
  void setProgress(Progress* progress) override { progress_ = progress; }
  Value run(Session& session) override;

  static Value describe(const varlo::varlo_volume& partition,
                        const std::vector<varlo::varlo_extension>& extensions, bool json);

 private:
  std::uint32_t days_;
  bool json_ = false;
  Progress* progress_ = nullptr;
};

}  // namespace varloctl
