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
    list.push_back(describe(d));
  return list;
}

Value PciCommand::describe(const varlo::varlo_pci& device) {
  char vendor[8];
  std::snprintf(vendor, sizeof vendor, "%04x", device.vendor);
  return Value{
      {"name", device.name}, {"type", device.type}, {"slot", device.slot}, {"vendor_id", vendor}};
}

}  // namespace varloctl
