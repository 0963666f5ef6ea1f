#include "prefs/des_cipher.h"

// The DES_* calls are deprecated in OpenSSL 3 but remain in libcrypto; the
// console's cipher is DES, so there is no modern replacement to move to.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/des.h>

#include <cstring>

static_assert(sizeof(DES_key_schedule) <= 128, "key schedule storage too small");

const DesCipher& DesCipher::instance() {
  static const DesCipher cipher;
  return cipher;
}

DesCipher::DesCipher() {
  DES_cblock key;
  DES_string_to_key(kPassPhrase, &key);
  std::memcpy(key_.data(), key, key_.size());
  DES_set_key_unchecked(&key, reinterpret_cast<DES_key_schedule*>(schedule_.data()));
}

void DesCipher::run(const std::uint8_t* in, std::uint8_t* out, int len, bool encipher) const {
  if (len <= 0) return;
  DES_cblock iv;
  std::memcpy(iv, key_.data(), key_.size());
  // The schedule is only read; libcrypto's signature is not const-correct.
  auto* schedule = const_cast<DES_key_schedule*>(
      reinterpret_cast<const DES_key_schedule*>(schedule_.data()));
  DES_ncbc_encrypt(in, out, len, schedule, &iv, encipher ? DES_ENCRYPT : DES_DECRYPT);
}

void DesCipher::encrypt(const std::uint8_t* in, std::uint8_t* out, int len) const {
  run(in, out, len, true);
}

void DesCipher::decrypt(const std::uint8_t* in, std::uint8_t* out, int len) const {
  run(in, out, len, false);
}
