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
    list.push(describe(v));
  return list;
}

std::string VolumesCommand::mebibytes(std::uint32_t units) {
  return std::to_string(units / 10) + "." + std::to_string(units % 10);
}

Value VolumesCommand::describe(const varlo::varlo_volume& entry) {
  // A name of 32 characters ends on the flag byte, so its remote bit is a
  // character's and says nothing.
  const bool known = entry.name.size() < varlo::varlo_volume::kMaxName;
  return Value::object()
      .add("name", Value::string(entry.name))
      .add("remote", known ? Value::boolean(entry.remote) : Value())
      .add("total_mib", Value::string(mebibytes(entry.total)))
      .add("free_mib", Value::string(mebibytes(entry.free)));
}

}  // namespace varloctl
