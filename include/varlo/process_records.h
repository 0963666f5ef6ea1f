// Records of the Processes command (3).
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "varlo/coding.h"
#include "varlo/commands.h"
#include "varlo/records.h"

namespace varlo {

// One process; batches of up to ten follow a varlo_list_header (the
// varlo_procs header, its word 0).
struct varlo_proc {
  static constexpr std::size_t kSize = 66;
  static constexpr std::size_t kBatch = 10;
  static constexpr std::size_t kMaxName = 32;
  static constexpr std::uint32_t kTypeAppl = 0x4150504C;  // 'APPL'
  using Bytes = WireRecord<kSize>;
  using Name = Field<0, 33>;  // Pascal string; byte 33 stays zero
  using Type = Field<34, 4>;
  using Size = Field<38, 4>;
  using CpuSecs = Field<42, 4>;
  using Reserved = Field<46, 4>;
  using Id = Field<50, 4>;
  static_assert(Name::end + 1 == Type::offset);
  static_assert(Id::end + 12 == kSize, "bytes 54 to 65 are unused");

  std::string name;  // at most kMaxName characters are sent
  std::uint32_t type = kTypeAppl;
  std::uint32_t size = 0;     // virtual size in bytes
  std::uint32_t cpuSecs = 0;  // processor seconds of the waited-for children
  std::uint32_t reserved = 0;
  std::uint32_t id = 0;

  // Writes the entry into a slot of a batch buffer without clearing the slot:
  // name bytes past the new length keep what an earlier entry left there, as
  // the console has always received them (it reads only up to the length).
  void writeSlot(std::uint8_t* p) const {
    const std::size_t len = std::min(name.size(), kMaxName);
    p[Name::offset] = static_cast<std::uint8_t>(len);
    std::memcpy(p + Name::offset + 1, name.data(), len);
    putU32(p + Type::offset, type);
    putU32(p + Size::offset, size);
    putU32(p + CpuSecs::offset, cpuSecs);
    putU32(p + Reserved::offset, reserved);
    putU32(p + Id::offset, id);
  }

  Bytes encode() const {
    Bytes r{};
    writeSlot(r.data());
    return r;
  }

  static varlo_proc decodeAt(const std::uint8_t* p) {
    varlo_proc e;
    const std::size_t len = std::min<std::size_t>(p[Name::offset], kMaxName);
    e.name.assign(reinterpret_cast<const char*>(p + Name::offset + 1), len);
    e.type = getU32(p + Type::offset);
    e.size = getU32(p + Size::offset);
    e.cpuSecs = getU32(p + CpuSecs::offset);
    e.reserved = getU32(p + Reserved::offset);
    e.id = getU32(p + Id::offset);
    return e;
  }
};

}  // namespace varlo
