// pci: the agent's PCI devices, in batches behind list headers.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varlo/device_records.h"
#include "varloctl/command.h"

namespace varloctl {

class PciCommand : public CommandOf<PciCommand> {
 public:
  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  std::uint16_t code() const override { return varlo::kPciCommand; }
  Value run(Session& session) override;

  static Value describe(const varlo::varlo_pci& device);
};

}  // namespace varloctl
