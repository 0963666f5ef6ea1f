// The session password as it travels: a Pascal string (a length byte and at
// most seven characters) in one 8-byte block, enciphered in every command
// header and plain in the Change Password request. The agent unseals what
// varloctl, the tests and the benchmarks seal.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "varlo/coding.h"

namespace password_block {

inline constexpr std::size_t kMaxLength = 7;
using Block = std::array<std::uint8_t, 8>;

// Length byte, characters, zero padding; nullopt for more than seven characters.
std::optional<Block> plain(std::string_view password);

// plain() enciphered with the agent's key, as a command header carries it.
std::optional<Block> seal(std::string_view password);

// The password a header's block carries.
std::string unseal(const Block& sealed);

// The text of a Pascal-string field: at most max characters, never read
// past the field however long its length byte claims to be, and ending at
// a zero byte.
std::string pascalText(const std::uint8_t* field, std::size_t fieldSize, std::size_t max);
template <std::size_t N>
std::string pascalText(const varlo::WireRecord<N>& field, std::size_t max) {
  return pascalText(field.data(), N, max);
}

}  // namespace password_block
