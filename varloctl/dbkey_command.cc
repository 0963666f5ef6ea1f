#include "varloctl/dbkey_command.h"

#include "varloctl/numbers.h"

namespace varloctl {

std::unique_ptr<Command> DbKeyCommand::make(const std::vector<std::string>& arguments) {
  return std::make_unique<DbKeyCommand>(
      static_cast<std::uint32_t>(parseUnsigned(arguments.at(0), 0xFFFFFFFFu, "the DBMS key")));
}

Value DbKeyCommand::run(Session& session) {
  using varlo::varlo_manage;
  varlo_manage::Bytes request{};
  varlo::put32<varlo_manage::KeyValue>(request, key_);
  session.send(request);
  const auto r = receiveFirstReply<varlo_manage::kSize>(session);
  requireSuccess(r, "the agent could not store the DBMS key");
  // The agent echoes the request, so this is the key it was given.
  return Value{{"dbms_key", varlo::get32<varlo_manage::KeyValue>(r)}};
}

}  // namespace varloctl
