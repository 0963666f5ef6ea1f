#include "varloctl/password_block.h"

#include <cstring>
#include <string>

#include "des_cipher.h"
#include "varloctl/ctl_error.h"

namespace varloctl {

PasswordBlock::Block PasswordBlock::plain(std::string_view password, std::string_view what) {
  if (password.size() > kMaxLength)
    throw usageError(std::string(what) + " has " + std::to_string(password.size()) +
                     " characters; the agent takes at most 7");
  Block b{};
  b[0] = static_cast<std::uint8_t>(password.size());
  std::memcpy(b.data() + 1, password.data(), password.size());
  return b;
}

PasswordBlock::Block PasswordBlock::sealed(std::string_view password) {
  const Block in = plain(password);
  Block out{};
  DesCipher::instance().encrypt(in.data(), out.data(), static_cast<int>(in.size()));
  return out;
}

varlo::varlo_cmd_header::Bytes PasswordBlock::header(std::uint16_t command,
                                                     std::string_view password) {
  varlo::varlo_cmd_header h;
  h.command = command;
  h.passwordBlock = sealed(password);
  return h.encode();
}

}  // namespace varloctl
