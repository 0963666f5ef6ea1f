#include "varloctl/census_command.h"

#include "varloctl/numbers.h"
#include "varloctl/progress.h"

namespace varloctl {

std::uint32_t CensusCommand::days(const std::vector<std::string>& arguments) {
  if (arguments.empty()) return 0;
  // The parser hands over the option as it was named, then its value.
  return static_cast<std::uint32_t>(
      parseUnsigned(arguments.at(1), kMaxDays, "the number of days (--days)"));
}

std::unique_ptr<Command> CensusCommand::make(const std::vector<std::string>& arguments) {
  return std::make_unique<CensusCommand>(days(arguments));
}

Value CensusCommand::run(Session& session) {
  session.send(varlo::varlo_extensions_request{static_cast<std::int32_t>(days_)}.encode());
  Budget budget;
  return describe(receiveCensus(session, progress_, true, {}, budget), json_);
}

std::vector<varlo::varlo_extension> CensusCommand::receiveCensus(Session& session,
                                                                 Progress* progress, bool first,
                                                                 std::string_view where,
                                                                 Budget& budget) {
  using varlo::varlo_extension;
  using varlo::varlo_extensions;
  std::vector<varlo_extension> list;
  for (bool opening = first;; opening = false) {
    const auto bytes = opening ? receiveFirstReply<varlo_extensions::kSize>(session)
                               : session.receive<varlo_extensions::kSize>();
    requireSuccess(bytes, "the agent could not count its files");
    const auto header = varlo_extensions::decode(bytes);
    if (header.count == 0 && !header.prefix.last) {
      if (budget.heartbeats == 0)
        throw CtlError(kBadReply, "the agent sent more than " + std::to_string(kMaxHeartbeats) +
                                      " heartbeats without ending its census");
      --budget.heartbeats;
      if (progress != nullptr) progress->files(header.filesScanned, where);
      continue;
    }
    if (header.count > budget.extensions)
      throw CtlError(kBadReply, "the agent announced more than " + std::to_string(kMaxExtensions) +
                                    " extensions");
    budget.extensions -= header.count;
    for (std::uint16_t i = 0; i < header.count; ++i) {
      const auto entry = session.receive<varlo_extension::kSize>();
      list.push_back(varlo_extension::decodeAt(entry.data()));
    }
    if (header.prefix.last) return list;
  }
}

Value CensusCommand::describe(const std::vector<varlo::varlo_extension>& extensions, bool json) {
  Value list = Value::array();
  for (const auto& e : extensions) {
    // Files without an extension are counted together under the empty one.
    const std::string name = e.name.empty() && !json ? "(no extension)" : e.name;
    Value row =
        Value{{"extension", name}, {"size_kb", e.sizeKb}, {"files", std::int64_t{e.count} + 1}};
    if (json) row["ext_count"] = e.count;
    list.push_back(std::move(row));
  }
  return list;
}

}  // namespace varloctl
