// Records of the SCSI (5) and PCI (27) commands.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "varlo/coding.h"
#include "varlo/commands.h"
#include "varlo/records.h"

namespace varlo {

// Peripheral device type names, indexed by the type code of varlo_scsi.
inline constexpr std::array<const char*, 14> kScsiDeviceTypes = {
    "Direct-Access", "Sequential-Access", "Printer",        "Processor",      "WORM",
    "CD-ROM",        "Scanner",           "Optical Device", "Medium Changer", "Communications",
    "Unknown",       "Unknown",           "RAID",           "Enclosure"};

// One SCSI device in a slot of varlo_scsis. The texts are raw, not Pascal
// strings: as many bytes as fit, the rest of the field zero.
struct varlo_scsi {
  static constexpr std::size_t kSize = 30;
  using Id = Field<0, 1>;
  using Type = Field<1, 1>;
  using Vendor = Field<2, 8>;
  using Product = Field<10, 16>;
  using Revision = Field<26, 4>;
  static_assert(Revision::end == kSize);

  std::uint8_t id = 0;
  std::uint8_t type = 0;
  std::string vendor;
  std::string product;
  std::string revision;

  void encodeAt(std::uint8_t* p) const {
    p[Id::offset] = id;
    p[Type::offset] = type;
    putRaw<Vendor>(p, vendor);
    putRaw<Product>(p, product);
    putRaw<Revision>(p, revision);
  }

  static varlo_scsi decodeAt(const std::uint8_t* p) {
    return varlo_scsi{p[Id::offset], p[Type::offset], getRaw<Vendor>(p), getRaw<Product>(p),
                      getRaw<Revision>(p)};
  }

 private:
  template <typename F>
  static void putRaw(std::uint8_t* p, std::string_view text) {
    std::memset(p + F::offset, 0, F::width);
    std::memcpy(p + F::offset, text.data(), std::min(text.size(), F::width));
  }

  // Up to the first zero byte, so zero-filled short texts come back short.
  template <typename F>
  static std::string getRaw(const std::uint8_t* p) {
    const char* s = reinterpret_cast<const char*>(p + F::offset);
    return std::string(s, strnlen(s, F::width));
  }
};

// The whole SCSI answer is records of this one shape: a header and seven
// slots, sent whole however few slots are filled.
struct varlo_scsis {
  static constexpr std::size_t kSize = kScsiRecordSize;
  static constexpr std::size_t kSlots = 7;
  using Bytes = WireRecord<kSize>;
  using Count = Field<12, 2>;
  using Devices = Field<14, kSlots * varlo_scsi::kSize>;
  static_assert(Devices::end == kSize);

  // The prefix's success byte is the record's header_one, always 1.
  static ReplyPrefix prefix(bool last) { return ReplyPrefix{kScsiCommand, true, last, 0}; }

  static std::uint8_t* slot(Bytes& r, std::size_t i) {
    return r.data() + Devices::offset + i * varlo_scsi::kSize;
  }
  static const std::uint8_t* slot(const Bytes& r, std::size_t i) {
    return r.data() + Devices::offset + i * varlo_scsi::kSize;
  }
};

// One PCI device; batches of up to four follow a varlo_list_header (the
// varlo_pcis header, its word 0).
struct varlo_pci {
  static constexpr std::size_t kSize = 122;
  static constexpr std::size_t kBatch = 4;
  using Name = Field<0, 33>;
  using Type = Field<33, 33>;
  using Slot = Field<66, 33>;
  using Vendor = Field<100, 2>;  // byte 99 stays zero
  static_assert(Slot::end + 1 == Vendor::offset);
  static_assert(Vendor::end + 20 == kSize, "bytes 102 to 121 are unused");

  std::string name;
  std::string type;
  std::string slot;
  std::uint16_t vendor = 0;

  // Fills a slot of a batch buffer without clearing it: bytes past a text's
  // length keep what an earlier, longer text left there, as the console has
  // always received them (it reads only up to the length).
  void writeSlot(std::uint8_t* p) const {
    putText<Name>(p, name);
    putText<Type>(p, type);
    putText<Slot>(p, slot);
    putU16(p + Vendor::offset, vendor);
  }

  static varlo_pci decodeAt(const std::uint8_t* p) {
    return varlo_pci{getText<Name>(p), getText<Type>(p), getText<Slot>(p),
                     getU16(p + Vendor::offset)};
  }

 private:
  template <typename F>
  static void putText(std::uint8_t* p, std::string_view text) {
    const std::size_t len = std::min(text.size(), F::width - 1);
    p[F::offset] = static_cast<std::uint8_t>(len);
    std::memcpy(p + F::offset + 1, text.data(), len);
  }

  template <typename F>
  static std::string getText(const std::uint8_t* p) {
    const std::size_t len = std::min<std::size_t>(p[F::offset], F::width - 1);
    return std::string(reinterpret_cast<const char*>(p + F::offset + 1), len);
  }
};

}  // namespace varlo
