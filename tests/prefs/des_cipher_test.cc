#include "prefs/des_cipher.h"

#include <array>
#include <cstring>

#include "test_support.h"
#include "base/util.h"

namespace {

using Block = std::array<std::uint8_t, 8>;

// Known answers computed outside this project with two independent DES codes.
constexpr Block kKey = {0x52, 0x31, 0x4a, 0xe3, 0x45, 0x57, 0x6b, 0x8c};
constexpr Block kSecretBlock = {0xb1, 0x6e, 0xd7, 0x45, 0x29, 0x07, 0x5b, 0x4d};
constexpr Block kEmptyBlock = {0xae, 0xc6, 0xc2, 0x38, 0xc7, 0x44, 0xdb, 0xad};

Block encipher(const Block& plain) {
  Block out{};
  Util::Encrypt(reinterpret_cast<const char*>(plain.data()), reinterpret_cast<char*>(out.data()), 8);
  return out;
}

}  // namespace

TEST(DesCipher, MatchesTheConsolesKnownAnswers) {
  EXPECT_EQ(DesCipher::instance().key(), kKey);
  // The console sends the password as a Pascal string in one block.
  EXPECT_EQ(encipher({6, 's', 'e', 'c', 'r', 'e', 't', 0}), kSecretBlock);
  EXPECT_EQ(encipher({}), kEmptyBlock);

  Block plain{};
  Util::Decrypt(reinterpret_cast<const char*>(kSecretBlock.data()),
                reinterpret_cast<char*>(plain.data()), 8);
  EXPECT_EQ(plain, (Block{6, 's', 'e', 'c', 'r', 'e', 't', 0}));
}

TEST(DesCipher, PartialBlocksArePaddedOnTheWayInAndCutOnTheWayOut) {
  // Three bytes encipher as their zero-padded block.
  char out[8] = {};
  Util::Encrypt("\x06se", out, 3);
  EXPECT_EQ(std::memcmp(out, encipher({6, 's', 'e', 0, 0, 0, 0, 0}).data(), 8), 0);

  // Deciphering three bytes writes three and not one more.
  char plain[8];
  std::memset(plain, 0x7e, sizeof plain);
  Util::Decrypt(reinterpret_cast<const char*>(kSecretBlock.data()), plain, 3);
  EXPECT_EQ(std::string(plain, 3), "\x06se");
  EXPECT_EQ(plain[3], 0x7e);
}
