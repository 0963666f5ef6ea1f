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
    list.push(describe(a));
  return list;
}

Value IpAddrsCommand::describe(const varlo::varlo_ipaddr& entry) {
  return Value::object()
      .add("ip_address", Value::string(dotted(entry.ipAddr)))
      .add("gateway", Value::string(dotted(entry.gatewayAddr)))
      .add("subnet_mask", Value::string(dotted(entry.netMask)))
      .add("hardware_address", Value::string(hardwareAddress(entry.hwAddr)));
}

}  // namespace varloctl
