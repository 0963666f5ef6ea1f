// password NEW: changes the agent's session password.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varloctl/command.h"
#include "varloctl/password_block.h"

namespace varloctl {

class PasswordCommand : public CommandOf<PasswordCommand> {
 public:
  static constexpr std::uint16_t kCode = 17;

  // Refuses a new password that the agent could not receive.
  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  explicit PasswordCommand(PasswordBlock::Block request) : request_(request) {}
  std::uint16_t code() const override { return kCode; }
  Value run(Session& session) override;

 private:
  PasswordBlock::Block request_;  // sent in plain, as the agent expects
};

}  // namespace varloctl
