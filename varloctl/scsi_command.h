// scsi: the agent's SCSI devices, seven slots to a record.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varlo/device_records.h"
#include "varloctl/command.h"

namespace varloctl {

class ScsiCommand : public CommandOf<ScsiCommand> {
 public:
  // A sane agent sends a handful of records; this only stops a runaway peer.
  static constexpr std::size_t kMaxRecords = 8192;

  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  std::uint16_t code() const override { return varlo::kScsiCommand; }
  Value run(Session& session) override;

  static Value describe(const varlo::varlo_scsi& device);
};

}  // namespace varloctl
