#include "varloctl/password_command.h"

namespace varloctl {

std::unique_ptr<Command> PasswordCommand::make(const std::vector<std::string>& arguments) {
  return std::make_unique<PasswordCommand>(
      PasswordBlock::plain(arguments.at(0), "the new password"));
}

Value PasswordCommand::run(Session& session) {
  session.send(request_.data(), request_.size());
  const auto r = receiveFirstReply<varlo::varlo_manage::kSize>(session);
  requireSuccess(r, "the agent could not change its password");
  return Value{{"password_changed", true}};
}

}  // namespace varloctl
