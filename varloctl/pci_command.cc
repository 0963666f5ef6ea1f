#include "varloctl/pci_command.h"

#include <cstdio>

namespace varloctl {

std::unique_ptr<Command> PciCommand::make(const std::vector<std::string>&) {
  return std::make_unique<PciCommand>();
}

Value PciCommand::run(Session& session) {
  using varlo::varlo_list_header;
  using varlo::varlo_pci;
  Value list = Value::array();
  std::size_t entries = 0;
  for (std::size_t batch = 0;; ++batch) {
    if (batch == kMaxBatches)
      throw CtlError(kBadReply, "the agent sent more than " + std::to_string(kMaxBatches) +
                                    " batches of PCI devices without a last one");
    const auto bytes = batch == 0 ? receiveFirstReply<varlo_list_header::kSize>(session)
                                  : session.receive<varlo_list_header::kSize>();
    requireSuccess(bytes, "the agent could not list its PCI devices");
    const auto header = varlo_list_header::decode(bytes);
    entries += header.count;
    if (entries > kMaxEntries)
      throw CtlError(kBadReply, "the agent announced more than " + std::to_string(kMaxEntries) +
                                    " PCI devices");
    for (std::uint16_t i = 0; i < header.count; ++i) {
      const auto entry = session.receive<varlo_pci::kSize>();
      list.push(describe(varlo_pci::decodeAt(entry.data())));
    }
    if (header.prefix.last) break;
  }
  return list;
}

Value PciCommand::describe(const varlo::varlo_pci& device) {
  char vendor[8];
  std::snprintf(vendor, sizeof vendor, "%04x", device.vendor);
  return Value::object()
      .add("name", Value::string(device.name))
      .add("type", Value::string(device.type))
      .add("slot", Value::string(device.slot))
      .add("vendor_id", Value::string(vendor));
}

}  // namespace varloctl
