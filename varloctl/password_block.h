// The 8-byte password forms the agent takes: a Pascal string of at most
// seven characters, enciphered in the command header, plain in the Change
// Password request.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "varlo/records.h"

namespace varloctl {

class PasswordBlock {
 public:
  using Block = std::array<std::uint8_t, 8>;

  // Length byte, characters, zero padding. Throws a usage CtlError naming
  // `what` when the text does not fit.
  static Block plain(std::string_view password, std::string_view what = "the password");

  // The command header, its password sealed as the agent expects.
  static varlo::varlo_cmd_header::Bytes header(std::uint16_t command, std::string_view password);
};

}  // namespace varloctl
