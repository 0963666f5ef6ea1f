#include "prefs/des_cipher.h"

#include "base/util.h"
#include "test_support.h"

namespace {

using Block = std::array<std::uint8_t, 8>;

// One of Util's ciphers on the first len bytes of in, written over out.
Block run(void (*cipher)(const char*, char*, int), const Block& in, int len = 8, Block out = {}) {
  cipher(reinterpret_cast<const char*>(in.data()), reinterpret_cast<char*>(out.data()), len);
  return out;
}

}  // namespace

// Known answers computed outside this project with two independent DES codes.
TEST(DesCipher, MatchesTheConsolesKnownAnswers) {
  const Block secret = {6, 's', 'e', 'c', 'r', 'e', 't', 0};  // a Pascal string in one block
  const Block secretBlock = {0xb1, 0x6e, 0xd7, 0x45, 0x29, 0x07, 0x5b, 0x4d};
  EXPECT_EQ(DesCipher::instance().key(), (Block{0x52, 0x31, 0x4a, 0xe3, 0x45, 0x57, 0x6b, 0x8c}));
  EXPECT_EQ(run(Util::Encrypt, secret), secretBlock);
  EXPECT_EQ(run(Util::Encrypt, {}), (Block{0xae, 0xc6, 0xc2, 0x38, 0xc7, 0x44, 0xdb, 0xad}));
  // A short block is zero-padded on the way in and cut on the way out.
  EXPECT_EQ(run(Util::Encrypt, secret, 3), run(Util::Encrypt, {6, 's', 'e'}));
  EXPECT_EQ(run(Util::Decrypt, secretBlock), secret);
  EXPECT_EQ(run(Util::Decrypt, secretBlock, 3, Block{9, 9, 9, 9, 9, 9, 9, 9}),
            (Block{6, 's', 'e', 9, 9, 9, 9, 9}));
}
