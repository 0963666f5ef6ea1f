#include "varloctl/ipaddrs_command.h"

#include "varloctl/wire_text.h"

namespace varloctl {

std::unique_ptr<Command> IpAddrsCommand::make(const std::vector<std::string>&) {
  return std::make_unique<IpAddrsCommand>();
}

Value IpAddrsCommand::run(Session& session) {
  Value list = Value::array();
  for (const auto& a : receiveList<varlo::varlo_ipaddr>(
           session, "the agent could not list its IP addresses", "addresses"))
    list.push_back(describe(a));
  return list;
}

Value IpAddrsCommand::describe(const varlo::varlo_ipaddr& entry) {
  return Value{{"ip_address", dotted(entry.ipAddr)},
               {"gateway", dotted(entry.gatewayAddr)},
               {"subnet_mask", dotted(entry.netMask)},
               {"hardware_address", hardwareAddress(entry.hwAddr)}};
}

}  // namespace varloctl
