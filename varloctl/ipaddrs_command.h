// ipaddrs: every usable interface, in batches behind list headers.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varlo/net_records.h"
#include "varloctl/command.h"

namespace varloctl {

class IpAddrsCommand : public CommandOf<IpAddrsCommand> {
 public:
  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  std::uint16_t code() const override { return varlo::kIpAddressCommand; }
  Value run(Session& session) override;

  static Value describe(const varlo::varlo_ipaddr& entry);
};

}  // namespace varloctl
