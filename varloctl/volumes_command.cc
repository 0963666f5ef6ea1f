#include "varloctl/volumes_command.h"

namespace varloctl {

std::unique_ptr<Command> VolumesCommand::make(const std::vector<std::string>&) {
  return std::make_unique<VolumesCommand>(false);
}

std::unique_ptr<Command> VolumesCommand::makeLocal(const std::vector<std::string>&) {
  return std::make_unique<VolumesCommand>(true);
}

std::vector<varlo::varlo_volume> VolumesCommand::receiveList(Session& session,
                                                             const std::string& failure) {
  using varlo::varlo_list_header;
  using varlo::varlo_volume;
  std::vector<varlo_volume> list;
  for (std::size_t batch = 0;; ++batch) {
    if (batch == kMaxBatches)
      throw CtlError(kBadReply, "the agent sent more than " + std::to_string(kMaxBatches) +
                                    " batches without a last one");
    const auto bytes = batch == 0 ? receiveFirstReply<varlo_list_header::kSize>(session)
                                  : session.receive<varlo_list_header::kSize>();
    requireSuccess(bytes, failure);
    const auto header = varlo_list_header::decode(bytes);
    if (list.size() + header.count > kMaxEntries)
      throw CtlError(kBadReply,
                     "the agent announced more than " + std::to_string(kMaxEntries) + " entries");
    for (std::uint16_t i = 0; i < header.count; ++i) {
      const auto entry = session.receive<varlo_volume::kSize>();
      list.push_back(varlo_volume::decodeAt(entry.data()));
    }
    if (header.prefix.last) break;
  }
  return list;
}

Value VolumesCommand::run(Session& session) {
  Value list = Value::array();
  for (const auto& v : receiveList(session, "the agent could not list its volumes"))
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
