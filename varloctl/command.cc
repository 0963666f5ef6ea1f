#include "varloctl/command.h"

#include "varloctl/table_writer.h"

namespace varloctl {

std::string Command::agentText(std::string_view text) { return TableWriter::text(text); }

void Command::requireManageSuccess(const varlo::varlo_manage::Bytes& r,
                                   const std::string& failure) {
  if (varlo::ReplyPrefix::decodeFrom(r).success) return;
  const auto reason = varlo::getPString<varlo::varlo_manage::Message>(r);
  throw CtlError(kFailed, reason.empty() ? failure : failure + ": " + agentText(reason));
}

}  // namespace varloctl
