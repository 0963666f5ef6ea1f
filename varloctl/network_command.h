// network: the agent's first usable interface.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varlo/net_records.h"
#include "varloctl/command.h"

namespace varloctl {

class NetworkCommand : public CommandOf<NetworkCommand> {
 public:
  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  std::uint16_t code() const override { return varlo::kNetworkingCommand; }
  Value run(Session& session) override;

  static Value describe(const varlo::varlo_net& net);
};

}  // namespace varloctl
