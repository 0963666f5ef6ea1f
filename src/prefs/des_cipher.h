// The session-password cipher: DES in CBC mode under a key made once from
// the agent's compiled-in pass phrase, with the key bytes as the IV. The
// console enciphers the same way, so neither side may change it.
#pragma once

#include <array>
#include <cstdint>

class DesCipher {
 public:
  static constexpr const char* kPassPhrase = "qorvelt";
  using Block = std::array<std::uint8_t, 8>;

  // The process-wide cipher; the key schedule is built on first use.
  static const DesCipher& instance();

  // len bytes in 8-byte blocks. Enciphering zero-pads a final partial block
  // and writes it whole; deciphering writes exactly len bytes.
  void encrypt(const std::uint8_t* in, std::uint8_t* out, int len) const;
  void decrypt(const std::uint8_t* in, std::uint8_t* out, int len) const;

  const Block& key() const { return key_; }

 private:
  DesCipher();
  void run(const std::uint8_t* in, std::uint8_t* out, int len, bool encipher) const;

  Block key_{};
  // Opaque storage for libcrypto's key schedule (128 bytes), so the OpenSSL
  // headers stay out of this one.
  alignas(8) std::array<std::uint8_t, 128> schedule_{};
};
