#include "actions/apple_double.h"

#include <fcntl.h>
#include <unistd.h>

#include "varlo/coding.h"

namespace {

bool writeAt(int fd, const std::uint8_t* data, std::size_t len, off_t at) {
  while (len > 0) {
    const ssize_t n = ::pwrite(fd, data, len, at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    len -= static_cast<std::size_t>(n);
    at += n;
  }
  return true;
}

}  // namespace

AppleDouble::FinderInfo AppleDouble::finderInfo(std::uint32_t type, std::uint32_t creator,
                                                std::uint16_t flags) {
  FinderInfo info{};
  varlo::putU32(info.data(), type);
  varlo::putU32(info.data() + 4, creator);
  varlo::putU16(info.data() + 8, static_cast<std::uint16_t>(flags & ~kFlagsNotKept));
  return info;
}

std::array<std::uint8_t, AppleDouble::kHeaderSize> AppleDouble::header(std::uint32_t resourceLength) {
  std::array<std::uint8_t, kHeaderSize> h{};
  varlo::putU32(h.data(), kMagic);
  varlo::putU32(h.data() + 4, kVersion);
  // 16 bytes of filler, then the number of entries and their descriptors.
  varlo::putU16(h.data() + 24, 2);
  varlo::putU32(h.data() + 26, kFinderInfoId);
  varlo::putU32(h.data() + 30, kFinderInfoOffset);
  varlo::putU32(h.data() + 34, kFinderInfoSize);
  varlo::putU32(h.data() + 38, kResourceForkId);
  varlo::putU32(h.data() + 42, kResourceOffset);
  varlo::putU32(h.data() + 46, resourceLength);
  return h;
}

bool AppleDouble::create(int dirfd, const std::string& name) {
  fd_.reset(::openat(dirfd, sidecarName(name).c_str(),
                     O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  resourceLength_ = 0;
  return fd_.valid();
}

bool AppleDouble::writeResource(const char* data, std::size_t len) {
  if (!fd_.valid()) return false;
  if (!writeAt(fd_.get(), reinterpret_cast<const std::uint8_t*>(data), len,
               static_cast<off_t>(kResourceOffset + resourceLength_)))
    return false;
  resourceLength_ += len;
  return true;
}

bool AppleDouble::finish(const FinderInfo& info) {
  if (!fd_.valid()) return false;
  const auto h = header(static_cast<std::uint32_t>(resourceLength_));
  const bool ok = writeAt(fd_.get(), h.data(), h.size(), 0) &&
                  writeAt(fd_.get(), info.data(), info.size(), kFinderInfoOffset);
  fd_.reset();
  return ok;
}
