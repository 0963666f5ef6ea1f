#include "varloctl/password_block.h"

#include <string>

#include "prefs/password_block.h"
#include "varloctl/ctl_error.h"

namespace varloctl {

PasswordBlock::Block PasswordBlock::plain(std::string_view password, std::string_view what) {
  const auto block = password_block::plain(password);
  if (!block)
    throw usageError(std::string(what) + " has " + std::to_string(password.size()) +
                     " characters; the agent takes at most 7");
  return *block;
}

varlo::varlo_cmd_header::Bytes PasswordBlock::header(std::uint16_t command,
                                                     std::string_view password) {
  plain(password);  // the usage error for a password that does not fit
  varlo::varlo_cmd_header h;
  h.command = command;
  h.passwordBlock = *password_block::seal(password);
  return h.encode();
}

}  // namespace varloctl
