#include "varloctl/profiler_command.h"

#include "varloctl/census_command.h"
#include "varloctl/volumes_command.h"

namespace varloctl {

std::unique_ptr<Command> ProfilerCommand::make(const std::vector<std::string>& arguments) {
  return std::make_unique<ProfilerCommand>(CensusCommand::days(arguments));
}

Value ProfilerCommand::run(Session& session) {
  using varlo::varlo_list_header;
  using varlo::varlo_volume;
  session.send(varlo::varlo_extensions_request{static_cast<std::int32_t>(days_)}.encode());
  Value partitions = Value::array();
  CensusCommand::Budget budget;
  for (std::size_t n = 0;; ++n) {
    if (n == kMaxPartitions + 1)
      throw CtlError(kBadReply, "the agent sent more than " + std::to_string(kMaxPartitions) +
                                    " partitions without a last header");
    const auto bytes = n == 0 ? receiveFirstReply<varlo_list_header::kSize>(session)
                              : session.receive<varlo_list_header::kSize>();
    requireSuccess(bytes, "the agent could not profile its partitions");
    const auto header = varlo_list_header::decode(bytes);
    // One partition a header, each followed by its census; the last has none.
    const unsigned expected = header.prefix.last ? 0 : 1;
    if (header.count != expected)
      throw CtlError(kBadReply, std::string("the agent's ") + (expected ? "" : "last ") +
                                    "partition header has a count of " +
                                    std::to_string(header.count) + "; expected " +
                                    std::to_string(expected));
    if (header.prefix.last) return partitions;
    const auto volume = session.receive<varlo_volume::kSize>();
    const auto partition = varlo_volume::decodeAt(volume.data());
    partitions.push_back(describe(
        partition, CensusCommand::receiveCensus(session, progress_, false, partition.name, budget),
        json_));
  }
}

Value ProfilerCommand::describe(const varlo::varlo_volume& partition,
                                const std::vector<varlo::varlo_extension>& extensions, bool json) {
  Value v = VolumesCommand::describe(partition);
  v["extensions"] = CensusCommand::describe(extensions, json);
  return v;
}

}  // namespace varloctl
