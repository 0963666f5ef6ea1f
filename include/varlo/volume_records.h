// Records of the Volumes (4: all, 25: local only) and Hard Disk (26) commands.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "varlo/coding.h"
#include "varlo/commands.h"
#include "varlo/records.h"

namespace varlo {

// One disk or volume; batches of up to ten follow a varlo_list_header (the
// varlo_volumes header, its word 0).
struct varlo_volume {
  static constexpr std::size_t kSize = 50;
  static constexpr std::size_t kBatch = 10;
  static constexpr std::size_t kMaxName = 32;
  static constexpr std::uint64_t kUnit = 104858;  // bytes: about a tenth of a mebibyte
  static constexpr std::uint8_t kRemote = 0x80;
  using Bytes = WireRecord<kSize>;
  using Name = Field<0, 33>;
  // The flag byte is also where a 32-character name keeps its last character.
  using Flags = Field<32, 1>;
  using Total = Field<34, 4>;
  using Free = Field<38, 4>;
  static_assert(Flags::end == Name::end && Name::end + 1 == Total::offset);
  static_assert(Free::end + 8 == kSize, "bytes 42 to 49 are unused");

  std::string name;
  bool remote = false;
  std::uint32_t total = 0;  // in kUnit
  std::uint32_t free = 0;   // in kUnit; disks leave it 0

  // Bytes in kUnit, the quotient cut (not rounded) to its low 32 bits.
  static std::uint32_t units(std::uint64_t bytes) {
    return static_cast<std::uint32_t>(bytes / kUnit);
  }

  // Writes the entry into a slot of a batch buffer without clearing it: the
  // remote bit first, then the name over it, then the sizes. Only bit 7 of
  // the flag byte is set or cleared, and a 32-character name then replaces
  // the whole byte; name bytes past the new length keep an earlier entry's.
  void writeSlot(std::uint8_t* p) const {
    std::uint8_t& flags = p[Flags::offset];
    flags = static_cast<std::uint8_t>(remote ? flags | kRemote : flags & ~kRemote);
    const std::size_t len = std::min(name.size(), kMaxName);
    p[Name::offset] = static_cast<std::uint8_t>(len);
    std::memcpy(p + Name::offset + 1, name.data(), len);
    putU32(p + Total::offset, total);
    putU32(p + Free::offset, free);
  }

  Bytes encode() const {
    Bytes r{};
    writeSlot(r.data());
    return r;
  }

  // remote is bit 7 of the flag byte, which means nothing when the name has
  // 32 characters (see Flags).
  static varlo_volume decodeAt(const std::uint8_t* p) {
    varlo_volume v;
    const std::size_t len = std::min<std::size_t>(p[Name::offset], kMaxName);
    v.name.assign(reinterpret_cast<const char*>(p + Name::offset + 1), len);
    v.remote = (p[Flags::offset] & kRemote) != 0;
    v.total = getU32(p + Total::offset);
    v.free = getU32(p + Free::offset);
    return v;
  }
};

}  // namespace varlo
