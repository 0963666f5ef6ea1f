// The resource fork and Finder information of a received Mac file, kept on
// Linux in an AppleDouble sidecar "._NAME" beside the file (RFC 1740,
// version 2): a Finder Info entry of 32 bytes, then the resource fork.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "base/unique_fd.h"

class AppleDouble {
 public:
  static constexpr std::uint32_t kMagic = 0x00051607;
  static constexpr std::uint32_t kVersion = 0x00020000;
  static constexpr std::uint32_t kResourceForkId = 2;
  static constexpr std::uint32_t kFinderInfoId = 9;
  static constexpr std::size_t kHeaderSize = 26 + 2 * 12;  // two entry descriptors
  static constexpr std::size_t kFinderInfoOffset = kHeaderSize;
  static constexpr std::size_t kFinderInfoSize = 32;
  static constexpr std::size_t kResourceOffset = kFinderInfoOffset + kFinderInfoSize;
  static constexpr std::uint16_t kFlagsNotKept = 0x0100;  // "has been inited", the Finder's own

  using FinderInfo = std::array<std::uint8_t, kFinderInfoSize>;

  // The Finder Info entry for a file's type, creator and flags.
  static FinderInfo finderInfo(std::uint32_t type, std::uint32_t creator, std::uint16_t flags);
  // The sidecar's header: magic, version, the two entry descriptors.
  static std::array<std::uint8_t, kHeaderSize> header(std::uint32_t resourceLength);

  static std::string sidecarName(const std::string& name) { return "._" + name; }

  // Creates (or replaces) the sidecar of `name` in the folder dirfd, not
  // following a link planted there; false when it cannot be made.
  bool create(int dirfd, const std::string& name);
  bool isOpen() const { return fd_.valid(); }
  // Appends resource fork bytes.
  bool writeResource(const char* data, std::size_t len);
  // Writes the header with the resource length received and the Finder Info.
  bool finish(const FinderInfo& info);

 private:
  UniqueFd fd_;
  std::uint64_t resourceLength_ = 0;
};
