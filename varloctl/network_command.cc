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
  v["interface_found"] = net.found;
  v["ip_address"] = dotted(net.ipAddr);
  v["gateway"] = dotted(net.gatewayAddr);
  v["subnet_mask"] = dotted(net.netMask);
  v["hardware_address"] = hardwareAddress(net.hwAddr);
  return v;
}

}  // namespace varloctl
