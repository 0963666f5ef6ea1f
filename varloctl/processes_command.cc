#include "varloctl/processes_command.h"

namespace varloctl {

std::unique_ptr<Command> ProcessesCommand::make(const std::vector<std::string>&) {
  return std::make_unique<ProcessesCommand>();
}

Value ProcessesCommand::run(Session& session) {
  Value list = Value::array();
  for (const auto& p : receiveList<varlo::varlo_proc>(
           session, "the agent could not list its processes", "processes", kMaxEntries))
    list.push_back(describe(p));
  return list;
}

Value ProcessesCommand::describe(const varlo::varlo_proc& entry) {
  // The agent counts the processor time of a process's waited-for children,
  // not its own; the label says so.
  return Value{{"pid", entry.id},
               {"name", entry.name},
               {"virtual_size", entry.size},
               {"child_cpu_seconds", entry.cpuSecs}};
}

}  // namespace varloctl
