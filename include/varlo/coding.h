// Big-endian field access at fixed byte offsets of a wire record.
//
// Records are byte arrays laid out as the console expects them: every integer
// in network order at its offset, padding as zero bytes. Nothing here ever
// copies the memory of a host-order struct onto the wire.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace varlo {

template <std::size_t N>
using WireRecord = std::array<std::uint8_t, N>;

// A field of a record: where it lies and how wide it is, so that its fit in
// the record is checked by the compiler.
template <std::size_t Offset, std::size_t Width>
struct Field {
  static constexpr std::size_t offset = Offset;
  static constexpr std::size_t width = Width;
  static constexpr std::size_t end = Offset + Width;
};

template <typename F, std::size_t N>
constexpr void checkFits() {
  static_assert(F::end <= N, "field runs past the end of its record");
}

inline void putU8(std::uint8_t* p, std::uint8_t v) { p[0] = v; }

inline void putU16(std::uint8_t* p, std::uint16_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 8);
  p[1] = static_cast<std::uint8_t>(v);
}

inline void putU32(std::uint8_t* p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 24);
  p[1] = static_cast<std::uint8_t>(v >> 16);
  p[2] = static_cast<std::uint8_t>(v >> 8);
  p[3] = static_cast<std::uint8_t>(v);
}

inline void putU64(std::uint8_t* p, std::uint64_t v) {
  putU32(p, static_cast<std::uint32_t>(v >> 32));
  putU32(p + 4, static_cast<std::uint32_t>(v));
}

inline std::uint8_t getU8(const std::uint8_t* p) { return p[0]; }

inline std::uint16_t getU16(const std::uint8_t* p) {
  return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

inline std::uint32_t getU32(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) |
         (std::uint32_t{p[2]} << 8) | std::uint32_t{p[3]};
}

inline std::uint64_t getU64(const std::uint8_t* p) {
  return (std::uint64_t{getU32(p)} << 32) | getU32(p + 4);
}

// Typed accessors: the field descriptor fixes offset and width at compile time.
template <typename F, std::size_t N>
void put16(WireRecord<N>& r, std::uint16_t v) {
  static_assert(F::width == 2);
  checkFits<F, N>();
  putU16(r.data() + F::offset, v);
}

template <typename F, std::size_t N>
void put32(WireRecord<N>& r, std::uint32_t v) {
  static_assert(F::width == 4);
  checkFits<F, N>();
  putU32(r.data() + F::offset, v);
}

template <typename F, std::size_t N>
void put8(WireRecord<N>& r, std::uint8_t v) {
  static_assert(F::width == 1);
  checkFits<F, N>();
  r[F::offset] = v;
}

template <typename F, std::size_t N>
std::uint16_t get16(const WireRecord<N>& r) {
  static_assert(F::width == 2);
  checkFits<F, N>();
  return getU16(r.data() + F::offset);
}

template <typename F, std::size_t N>
std::uint32_t get32(const WireRecord<N>& r) {
  static_assert(F::width == 4);
  checkFits<F, N>();
  return getU32(r.data() + F::offset);
}

template <typename F, std::size_t N>
std::uint8_t get8(const WireRecord<N>& r) {
  static_assert(F::width == 1);
  checkFits<F, N>();
  return r[F::offset];
}

// Pascal string (length byte, then the characters) in a fixed field whose
// whole width, length byte included, is the limit. The rest stays zero.
template <typename F, std::size_t N>
void putPString(WireRecord<N>& r, std::string_view text) {
  static_assert(F::width >= 1 && F::width <= 256);
  checkFits<F, N>();
  std::uint8_t* p = r.data() + F::offset;
  const std::size_t len = text.size() < F::width - 1 ? text.size() : F::width - 1;
  std::memset(p, 0, F::width);
  p[0] = static_cast<std::uint8_t>(len);
  std::memcpy(p + 1, text.data(), len);
}

// Reads a Pascal string back, never past its field even when the length byte
// claims more than the field holds.
template <typename F, std::size_t N>
std::string_view getPString(const WireRecord<N>& r) {
  checkFits<F, N>();
  const std::uint8_t* p = r.data() + F::offset;
  std::size_t len = p[0];
  if (len > F::width - 1) len = F::width - 1;
  return std::string_view(reinterpret_cast<const char*>(p + 1), len);
}

}  // namespace varlo
