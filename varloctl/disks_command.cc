#include "varloctl/disks_command.h"

#include "varloctl/volumes_command.h"

namespace varloctl {

std::unique_ptr<Command> DisksCommand::make(const std::vector<std::string>&) {
  return std::make_unique<DisksCommand>();
}

Value DisksCommand::run(Session& session) {
  Value list = Value::array();
  for (const auto& d :
       receiveList<varlo::varlo_volume>(session, "the agent could not list its disks", "disks"))
    list.push_back(describe(d));
  return list;
}

Value DisksCommand::describe(const varlo::varlo_volume& entry) {
  return Value{{"name", entry.name}, {"size_mib", VolumesCommand::mebibytes(entry.total)}};
}

}  // namespace varloctl
