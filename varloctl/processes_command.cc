#include "varloctl/processes_command.h"

namespace varloctl {

std::unique_ptr<Command> ProcessesCommand::make(const std::vector<std::string>&) {
  return std::make_unique<ProcessesCommand>();
}

Value ProcessesCommand::run(Session& session) {
  using varlo::varlo_list_header;
  using varlo::varlo_proc;
  Value list = Value::array();
  std::size_t entries = 0;
  for (std::size_t batch = 0;; ++batch) {
    if (batch == kMaxBatches)
      throw CtlError(kBadReply, "the agent sent more than " + std::to_string(kMaxBatches) +
                                    " batches of processes without a last one");
    const auto bytes = batch == 0 ? receiveFirstReply<varlo_list_header::kSize>(session)
                                  : session.receive<varlo_list_header::kSize>();
    requireSuccess(bytes, "the agent could not list its processes");
    const auto header = varlo_list_header::decode(bytes);
    entries += header.count;
    if (entries > kMaxEntries)
      throw CtlError(kBadReply,
                     "the agent announced more than " + std::to_string(kMaxEntries) + " processes");
    for (std::uint16_t i = 0; i < header.count; ++i) {
      const auto entry = session.receive<varlo_proc::kSize>();
      list.push(describe(varlo_proc::decodeAt(entry.data())));
    }
    if (header.prefix.last) break;
  }
  return list;
}

Value ProcessesCommand::describe(const varlo::varlo_proc& entry) {
  // The agent counts the processor time of a process's waited-for children,
  // not its own; the label says so.
  return Value::object()
      .add("pid", Value::integer(entry.id))
      .add("name", Value::string(entry.name))
      .add("virtual_size", Value::integer(entry.size))
      .add("child_cpu_seconds", Value::integer(entry.cpuSecs));
}

}  // namespace varloctl
