// processes: every process the agent sees, in batches behind list headers.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varlo/process_records.h"
#include "varloctl/command.h"

namespace varloctl {

class ProcessesCommand : public CommandOf<ProcessesCommand> {
 public:
  // No machine runs more processes than the largest pid_max; these only stop
  // a runaway peer.
  static constexpr std::size_t kMaxEntries = 4194304;

  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  std::uint16_t code() const override { return varlo::kProcessesCommand; }
  Value run(Session& session) override;

  static Value describe(const varlo::varlo_proc& entry);
};

}  // namespace varloctl
