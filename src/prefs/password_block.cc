#include "prefs/password_block.h"

#include <algorithm>
#include <cstring>

#include "prefs/des_cipher.h"

namespace password_block {

std::optional<Block> plain(std::string_view password) {
  if (password.size() > kMaxLength) return std::nullopt;
  Block b{};
  b[0] = static_cast<std::uint8_t>(password.size());
  std::memcpy(b.data() + 1, password.data(), password.size());
  return b;
}

std::optional<Block> seal(std::string_view password) {
  const auto in = plain(password);
  if (!in) return std::nullopt;
  Block out{};
  DesCipher::instance().encrypt(in->data(), out.data(), static_cast<int>(in->size()));
  return out;
}

std::string unseal(const Block& sealed) {
  Block clear{};
  DesCipher::instance().decrypt(sealed.data(), clear.data(), static_cast<int>(sealed.size()));
  // Eight characters at most, as the stored password is compared.
  return pascalText(clear.data(), clear.size(), 8);
}

std::string pascalText(const std::uint8_t* field, std::size_t fieldSize, std::size_t max) {
  if (fieldSize == 0) return {};
  const std::size_t wanted = std::min<std::size_t>(field[0], max);
  const std::size_t available = std::min(wanted, fieldSize - 1);
  std::string text(reinterpret_cast<const char*>(field + 1), available);
  text.resize(std::min(text.find('\0'), text.size()));
  return text;
}

}  // namespace password_block
