// disks: the agent's fixed (non-removable) disks and their capacity.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varlo/volume_records.h"
#include "varloctl/command.h"

namespace varloctl {

class DisksCommand : public CommandOf<DisksCommand> {
 public:
  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  std::uint16_t code() const override { return varlo::kHardDiskCommand; }
  Value run(Session& session) override;

  static Value describe(const varlo::varlo_volume& entry);
};

}  // namespace varloctl
