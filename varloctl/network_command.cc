#include "varloctl/network_command.h"

#include "varloctl/wire_text.h"

namespace varloctl {

std::unique_ptr<Command> NetworkCommand::make(const std::vector<std::string>&) {
  return std::make_unique<NetworkCommand>();
}

Value NetworkCommand::run(Session& session) {
  const auto r = receiveFirstReply<varlo::varlo_net::kSize>(session);
  requireSuccess(r, "the agent could not read its network settings");
  return describe(varlo::varlo_net::decode(r));
}

Value NetworkCommand::describe(const varlo::varlo_net& net) {
  Value v = Value::object();
  v.add("interface_found", Value::boolean(net.found));
  v.add("ip_address", Value::string(dotted(net.ipAddr)));
  v.add("gateway", Value::string(dotted(net.gatewayAddr)));
  v.add("subnet_mask", Value::string(dotted(net.netMask)));
  v.add("hardware_address", Value::string(hardwareAddress(net.hwAddr)));
  return v;
}

}  // namespace varloctl
