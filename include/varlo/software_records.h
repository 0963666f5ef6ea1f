// Records of the software inventory: the named-entry lists (Applications 6,
// Control Panels 7, Extensions 8, Fonts 9, Startup Items 10) and the
// file-extension census (23) with the backup profiler (30).
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "varlo/coding.h"
#include "varlo/commands.h"
#include "varlo/records.h"

namespace varlo {

namespace detail {

// A Pascal string written the way the agent has always filled its batch
// slots: the length byte and the characters, nothing more, so the bytes
// behind a shorter string keep an earlier entry's. width includes the
// length byte.
inline void putPStringOver(std::uint8_t* p, std::size_t width, const std::string& text) {
  const std::size_t len = std::min(text.size(), width - 1);
  p[0] = static_cast<std::uint8_t>(len);
  std::memcpy(p + 1, text.data(), len);
}

inline std::string getPStringAt(const std::uint8_t* p, std::size_t width) {
  const std::size_t len = std::min<std::size_t>(p[0], width - 1);
  return std::string(reinterpret_cast<const char*>(p + 1), len);
}

}  // namespace detail

// One named entry (an application, panel, module, font or service) in a
// batch of up to ten behind a varlo_list_header (its word 0).
struct varlo_app {
  static constexpr std::size_t kSize = 48;
  static constexpr std::size_t kBatch = 10;
  using Name = Field<0, 32>;
  using Version = Field<33, 11>;
  using Index = Field<44, 4>;
  static_assert(Name::end + 1 == Version::offset && Version::end == Index::offset);
  static_assert(Index::end == kSize);

  std::string name;
  std::string version;
  std::uint32_t index = 0;  // running number in the answer, from 1
  // Fonts clear their slot before filling it; the other lists leave what
  // an earlier batch wrote behind a shorter string.
  bool clearSlot = false;

  void writeSlot(std::uint8_t* p) const {
    if (clearSlot) std::memset(p, 0, kSize);
    detail::putPStringOver(p + Name::offset, Name::width, name);
    detail::putPStringOver(p + Version::offset, Version::width, version);
    putU32(p + Index::offset, index);
  }

  static varlo_app decodeAt(const std::uint8_t* p) {
    varlo_app a;
    a.name = detail::getPStringAt(p + Name::offset, Name::width);
    a.version = detail::getPStringAt(p + Version::offset, Version::width);
    a.index = getU32(p + Index::offset);
    return a;
  }
};

// What the census and the profiler are asked: only the day count is read.
struct varlo_extensions_request {
  static constexpr std::size_t kSize = 82;
  using Bytes = WireRecord<kSize>;
  using Days = Field<12, 4>;

  std::int32_t days = 0;  // 0 or less: every file, whatever its age

  Bytes encode() const {
    Bytes r{};
    put32<Days>(r, static_cast<std::uint32_t>(days));
    return r;
  }
  static varlo_extensions_request decode(const Bytes& r) {
    return varlo_extensions_request{static_cast<std::int32_t>(get32<Days>(r))};
  }
};

// Header of each census batch; also the heartbeat of a running census,
// whose files_scanned grows.
struct varlo_extensions {
  static constexpr std::size_t kSize = kExtensionsRecordSize;
  using Bytes = WireRecord<kSize>;
  using Count = Field<12, 2>;
  using FilesScanned = Field<14, 4>;
  static_assert(FilesScanned::end + 16 == kSize, "bytes 18 to 33 are unused");

  ReplyPrefix prefix;
  std::uint16_t count = 0;
  std::uint32_t filesScanned = 0;

  Bytes encode() const {
    Bytes r{};
    prefix.encodeInto(r);
    put16<Count>(r, count);
    put32<FilesScanned>(r, filesScanned);
    return r;
  }
  static varlo_extensions decode(const Bytes& r) {
    return varlo_extensions{ReplyPrefix::decodeFrom(r), get16<Count>(r), get32<FilesScanned>(r)};
  }
};

// One extension of a census: its files' allocated kilobytes and their
// number less one (the first file of an extension counts 0).
struct varlo_extension {
  static constexpr std::size_t kSize = 30;
  static constexpr std::size_t kBatch = 10;
  using Name = Field<0, 5>;
  using SizeKb = Field<6, 4>;
  using Count = Field<10, 4>;
  static_assert(SizeKb::end == Count::offset && Count::end + 16 == kSize);

  std::string name;
  std::uint32_t sizeKb = 0;
  std::uint32_t count = 0;

  void writeSlot(std::uint8_t* p) const {
    detail::putPStringOver(p + Name::offset, Name::width, name);
    putU32(p + SizeKb::offset, sizeKb);
    putU32(p + Count::offset, count);
  }

  static varlo_extension decodeAt(const std::uint8_t* p) {
    return varlo_extension{detail::getPStringAt(p + Name::offset, Name::width),
                           getU32(p + SizeKb::offset), getU32(p + Count::offset)};
  }
};

}  // namespace varlo
