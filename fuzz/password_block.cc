// The password block of a command header and the Pascal-string fields the
// password travels in. Whatever the bytes, unseal gives at most seven
// characters and no NUL, sealing that password again unseals to it, and
// pascalText never returns more than max characters nor reads past its field.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "prefs/password_block.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::size_t max = data[0];
  ++data;
  --size;

  // The field is exactly the rest of the input, on the heap, so a read past
  // it is caught.
  const std::vector<std::uint8_t> field(data, data + size);
  const std::string text = password_block::pascalText(field.data(), field.size(), max);
  if (text.size() > max) __builtin_trap();
  if (!field.empty() && text.size() > field.size() - 1) __builtin_trap();
  if (field.empty() && !text.empty()) __builtin_trap();
  if (!field.empty() && text.size() > field[0]) __builtin_trap();
  if (text.find('\0') != std::string::npos) __builtin_trap();
  if (!text.empty() && std::memcmp(text.data(), field.data() + 1, text.size()) != 0)
    __builtin_trap();
  // It stops at a NUL and nowhere else before its limits.
  const std::size_t limit =
      field.empty() ? 0 : std::min<std::size_t>({field[0], max, field.size() - 1});
  if (text.size() < limit && field[1 + text.size()] != '\0') __builtin_trap();

  password_block::Block block{};
  std::memcpy(block.data(), data, std::min(size, block.size()));
  const std::string password = password_block::unseal(block);
  if (password.size() > password_block::kMaxLength) __builtin_trap();
  if (password.find('\0') != std::string::npos) __builtin_trap();
  const auto sealed = password_block::seal(password);
  if (!sealed) __builtin_trap();
  if (password_block::unseal(*sealed) != password) __builtin_trap();

  const auto plain = password_block::plain(password);
  if (!plain || password_block::pascalText(*plain, 8) != password) __builtin_trap();
  return 0;
}
