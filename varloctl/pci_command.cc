#include "varloctl/pci_command.h"

#include <cstdio>

namespace varloctl {

std::unique_ptr<Command> PciCommand::make(const std::vector<std::string>&) {
  return std::make_unique<PciCommand>();
}

Value PciCommand::run(Session& session) {
  Value list = Value::array();
  for (const auto& d :
       receiveList<varlo::varlo_pci>(session, "the agent could not list its PCI devices", "PCI devices"))
    list.push(describe(d));
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
