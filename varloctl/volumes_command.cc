#include "varloctl/volumes_command.h"

namespace varloctl {

std::unique_ptr<Command> VolumesCommand::make(const std::vector<std::string>&) {
  return std::make_unique<VolumesCommand>(false);
}

std::unique_ptr<Command> VolumesCommand::makeLocal(const std::vector<std::string>&) {
  return std::make_unique<VolumesCommand>(true);
}

Value VolumesCommand::run(Session& session) {
  Value list = Value::array();
  for (const auto& v :
       receiveList<varlo::varlo_volume>(session, "the agent could not list its volumes", "volumes"))
    list.push_back(describe(v));
  return list;
}

std::string VolumesCommand::mebibytes(std::uint32_t units) {
  return std::to_string(units / 10) + "." + std::to_string(units % 10);
}

Value VolumesCommand::describe(const varlo::varlo_volume& entry) {
  // A name of 32 characters ends on the flag byte, so its remote bit is a
  // character's and says nothing.
  const bool known = entry.name.size() < varlo::varlo_volume::kMaxName;
  return Value{{"name", entry.name},
               {"remote", known ? Value(entry.remote) : Value()},
               {"total_mib", mebibytes(entry.total)},
               {"free_mib", mebibytes(entry.free)}};
}

}  // namespace varloctl
