// Record of the Configuration command (1): the machine described in one
// fixed-size record.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "varlo/coding.h"
#include "varlo/commands.h"
#include "varlo/records.h"

namespace varlo {

struct varlo_config {
  static constexpr std::size_t kSize = kConfigRecordSize;
  static constexpr std::uint32_t kRecordTag = 1376;
  using Bytes = WireRecord<kSize>;
  using RecordTag = Field<12, 4>;
  using CpuType = Field<24, 4>;
  using FpuType = Field<28, 4>;
  using Fixed32 = Field<32, 4>;
  using KeyboardType = Field<36, 4>;
  using LogicalRamMb = Field<40, 4>;
  using MachineType = Field<44, 4>;
  using Fixed48 = Field<48, 4>;
  using Fixed52 = Field<52, 4>;
  using Fixed56 = Field<56, 4>;
  using PhysicalRamMb = Field<60, 4>;
  using Fixed64 = Field<64, 4>;
  using SystemVersion = Field<68, 4>;
  using Fixed72 = Field<72, 4>;
  using CpuSpeedHz = Field<76, 4>;
  using BusSpeedHz = Field<80, 4>;
  using CpuCount = Field<84, 4>;
  using OsVersionText = Field<128, 32>;
  using Manufacturer = Field<160, 32>;
  using CpuBrand = Field<224, 48>;
  // The integers lie back to back from cpu_type on; the gaps are zero.
  static_assert(RecordTag::end + 8 == CpuType::offset);
  static_assert(CpuCount::end == CpuType::offset + 16 * 4);
  static_assert(CpuCount::end + 40 == OsVersionText::offset);
  static_assert(OsVersionText::end == Manufacturer::offset);
  static_assert(Manufacturer::end + 32 == CpuBrand::offset);
  static_assert(CpuBrand::end + 1000 == kSize);

  ReplyPrefix prefix;  // stamped by the dispatcher
  std::uint32_t recordTag = 0;
  std::int32_t cpuType = 0;
  std::int32_t fpuType = 0;
  std::int32_t fixed32 = 0;
  std::int32_t keyboardType = 0;
  std::uint32_t logicalRamMb = 0;
  std::int32_t machineType = 0;
  std::int32_t fixed48 = 0;
  std::int32_t fixed52 = 0;
  std::int32_t fixed56 = 0;
  std::uint32_t physicalRamMb = 0;
  std::int32_t fixed64 = 0;
  std::uint32_t systemVersion = 0;
  std::uint32_t fixed72 = 0;
  std::uint32_t cpuSpeedHz = 0;
  std::uint32_t busSpeedHz = 0;
  std::uint32_t cpuCount = 0;
  std::string osVersionText;  // cut to 31 characters on the wire
  std::string manufacturer;
  // Sent behind a length byte that is always 0, as the console has always
  // received it; the console therefore never shows it.
  std::string cpuBrand;

  Bytes encode() const {
    Bytes r{};
    prefix.encodeInto(r);
    put32<RecordTag>(r, recordTag);
    put32<CpuType>(r, static_cast<std::uint32_t>(cpuType));
    put32<FpuType>(r, static_cast<std::uint32_t>(fpuType));
    put32<Fixed32>(r, static_cast<std::uint32_t>(fixed32));
    put32<KeyboardType>(r, static_cast<std::uint32_t>(keyboardType));
    put32<LogicalRamMb>(r, logicalRamMb);
    put32<MachineType>(r, static_cast<std::uint32_t>(machineType));
    put32<Fixed48>(r, static_cast<std::uint32_t>(fixed48));
    put32<Fixed52>(r, static_cast<std::uint32_t>(fixed52));
    put32<Fixed56>(r, static_cast<std::uint32_t>(fixed56));
    put32<PhysicalRamMb>(r, physicalRamMb);
    put32<Fixed64>(r, static_cast<std::uint32_t>(fixed64));
    put32<SystemVersion>(r, systemVersion);
    put32<Fixed72>(r, fixed72);
    put32<CpuSpeedHz>(r, cpuSpeedHz);
    put32<BusSpeedHz>(r, busSpeedHz);
    put32<CpuCount>(r, cpuCount);
    putPString<OsVersionText>(r, osVersionText);
    putPString<Manufacturer>(r, manufacturer);
    if (!cpuBrand.empty()) putPString<CpuBrand>(r, cpuBrand);
    r[CpuBrand::offset] = 0;
    return r;
  }

  static varlo_config decode(const Bytes& r) {
    varlo_config c;
    c.prefix = ReplyPrefix::decodeFrom(r);
    c.recordTag = get32<RecordTag>(r);
    c.cpuType = static_cast<std::int32_t>(get32<CpuType>(r));
    c.fpuType = static_cast<std::int32_t>(get32<FpuType>(r));
    c.fixed32 = static_cast<std::int32_t>(get32<Fixed32>(r));
    c.keyboardType = static_cast<std::int32_t>(get32<KeyboardType>(r));
    c.logicalRamMb = get32<LogicalRamMb>(r);
    c.machineType = static_cast<std::int32_t>(get32<MachineType>(r));
    c.fixed48 = static_cast<std::int32_t>(get32<Fixed48>(r));
    c.fixed52 = static_cast<std::int32_t>(get32<Fixed52>(r));
    c.fixed56 = static_cast<std::int32_t>(get32<Fixed56>(r));
    c.physicalRamMb = get32<PhysicalRamMb>(r);
    c.fixed64 = static_cast<std::int32_t>(get32<Fixed64>(r));
    c.systemVersion = get32<SystemVersion>(r);
    c.fixed72 = get32<Fixed72>(r);
    c.cpuSpeedHz = get32<CpuSpeedHz>(r);
    c.busSpeedHz = get32<BusSpeedHz>(r);
    c.cpuCount = get32<CpuCount>(r);
    c.osVersionText = std::string(getPString<OsVersionText>(r));
    c.manufacturer = std::string(getPString<Manufacturer>(r));
    // No length to go by: the characters run to the first zero byte.
    const char* brand = reinterpret_cast<const char*>(r.data() + CpuBrand::offset + 1);
    c.cpuBrand.assign(brand, strnlen(brand, CpuBrand::width - 1));
    return c;
  }
};

}  // namespace varlo
