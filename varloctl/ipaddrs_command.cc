#include "varloctl/ipaddrs_command.h"

#include "varloctl/wire_text.h"

namespace varloctl {

std::unique_ptr<Command> IpAddrsCommand::make(const std::vector<std::string>&) {
  return std::make_unique<IpAddrsCommand>();
}

Value IpAddrsCommand::run(Session& session) {
  using varlo::varlo_ipaddr;
  using varlo::varlo_list_header;
  Value list = Value::array();
  std::size_t entries = 0;
  for (std::size_t batch = 0;; ++batch) {
    if (batch == kMaxBatches)
      throw CtlError(kBadReply, "the agent sent more than " + std::to_string(kMaxBatches) +
                                    " batches of addresses without a last one");
    const auto bytes = batch == 0 ? receiveFirstReply<varlo_list_header::kSize>(session)
                                  : session.receive<varlo_list_header::kSize>();
    requireSuccess(bytes, "the agent could not list its IP addresses");
    const auto header = varlo_list_header::decode(bytes);
    entries += header.count;
    if (entries > kMaxEntries)
      throw CtlError(kBadReply,
                     "the agent announced more than " + std::to_string(kMaxEntries) + " addresses");
    for (std::uint16_t i = 0; i < header.count; ++i) {
      const auto entry = session.receive<varlo_ipaddr::kSize>();
      list.push(describe(varlo_ipaddr::decodeAt(entry.data())));
    }
    if (header.prefix.last) break;
  }
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
