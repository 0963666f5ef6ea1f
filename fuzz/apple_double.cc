// The AppleDouble sidecar of a received file: its header and Finder Info
// built from any type, creator, flags and resource length read back as
// RFC 1740 lays them out, and the writer, given the resource fork in pieces
// of any sizes, leaves a file of exactly header, Finder Info and those
// bytes. An older, longer sidecar is replaced whole; a link planted where
// the sidecar goes is never written through.
//
// Input: type (4), creator (4), flags (2), resource length (4), a byte of
// options, a byte of piece sizes for each write, then the resource fork.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "actions/apple_double.h"

namespace {

namespace fs = std::filesystem;

std::uint32_t be32(const std::uint8_t* p) {
  return (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) | (std::uint32_t(p[2]) << 8) | p[3];
}
std::uint16_t be16(const std::uint8_t* p) { return static_cast<std::uint16_t>((p[0] << 8) | p[1]); }

struct Folder {
  std::string path;
  int fd = -1;
  Folder() {
    const char* base = fs::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
    path = std::string(base) + "/varlo_fuzz_ad_XXXXXX";
    if (mkdtemp(path.data()) == nullptr) std::abort();
    fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) std::abort();
    std::ofstream(path + "/victim") << "keep";
    fs::create_symlink(path + "/victim", path + "/._planted");
  }
  ~Folder() {
    ::close(fd);
    std::error_code ec;
    fs::remove_all(path, ec);
  }
};

const Folder& folder() {
  static const Folder f;
  return f;
}

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void checkHeader(std::uint32_t length) {
  const auto h = AppleDouble::header(length);
  const std::uint8_t* p = h.data();
  if (h.size() != 50) __builtin_trap();
  if (be32(p) != 0x00051607 || be32(p + 4) != 0x00020000) __builtin_trap();
  for (int i = 8; i < 24; ++i)
    if (p[i] != 0) __builtin_trap();
  if (be16(p + 24) != 2) __builtin_trap();
  // Finder Info (9) at 50 for 32, the resource fork (2) at 82 for length.
  if (be32(p + 26) != 9 || be32(p + 30) != 50 || be32(p + 34) != 32) __builtin_trap();
  if (be32(p + 38) != 2 || be32(p + 42) != 82 || be32(p + 46) != length) __builtin_trap();
  // The entries lie one after the other, right after the header.
  if (be32(p + 30) != h.size() || be32(p + 42) != be32(p + 30) + be32(p + 34)) __builtin_trap();
}

void checkFinderInfo(std::uint32_t type, std::uint32_t creator, std::uint16_t flags) {
  const auto info = AppleDouble::finderInfo(type, creator, flags);
  if (info.size() != 32) __builtin_trap();
  if (be32(info.data()) != type || be32(info.data() + 4) != creator) __builtin_trap();
  if (be16(info.data() + 8) != (flags & ~0x0100)) __builtin_trap();  // "inited" is the Finder's
  for (std::size_t i = 10; i < info.size(); ++i)
    if (info[i] != 0) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 16 || size > 256 * 1024) return 0;
  const std::uint32_t type = be32(data), creator = be32(data + 4);
  const std::uint16_t flags = be16(data + 8);
  checkHeader(be32(data + 10));
  checkFinderInfo(type, creator, flags);

  const std::uint8_t options = data[14];
  const std::size_t pieceUnit = data[15];
  const std::vector<char> resource(data + 16, data + size);
  const Folder& f = folder();
  if (AppleDouble::sidecarName("x") != "._x") __builtin_trap();

  // Through a planted link: refused, and the file it points at kept.
  if (options & 1) {
    AppleDouble planted;
    if (planted.create(f.fd, "planted") || planted.isOpen()) __builtin_trap();
    if (planted.writeResource(resource.data(), resource.size())) __builtin_trap();
    if (slurp(f.path + "/victim") != "keep") __builtin_trap();
  }
  // An older sidecar, longer than the new one.
  if (options & 2) std::ofstream(f.path + "/._file") << std::string(resource.size() + 200, 'z');

  AppleDouble sidecar;
  if (!sidecar.create(f.fd, "file") || !sidecar.isOpen()) __builtin_trap();
  // Pieces of 0 to 255 bytes and more, as the console's chunks cut them.
  const std::size_t piece = pieceUnit == 0 ? resource.size() : pieceUnit * ((options >> 2) + 1);
  for (std::size_t at = 0; at < resource.size() || (at == 0 && resource.empty());) {
    const std::size_t n = std::min(piece, resource.size() - at);
    if (!sidecar.writeResource(resource.data() + at, n)) __builtin_trap();
    at += n;
    if (n == 0) break;
  }
  const auto info = AppleDouble::finderInfo(type, creator, flags);
  if (!sidecar.finish(info) || sidecar.isOpen()) __builtin_trap();

  const std::string bytes = slurp(f.path + "/._file");
  if (bytes.size() != 82 + resource.size()) __builtin_trap();
  const auto header = AppleDouble::header(static_cast<std::uint32_t>(resource.size()));
  if (bytes.compare(0, 50, std::string(header.begin(), header.end())) != 0) __builtin_trap();
  if (bytes.compare(50, 32, std::string(info.begin(), info.end())) != 0) __builtin_trap();
  if (bytes.compare(82, std::string::npos, std::string(resource.begin(), resource.end())) != 0)
    __builtin_trap();
  // Read back through the header's own descriptors.
  const auto* p = reinterpret_cast<const std::uint8_t*>(bytes.data());
  if (be32(p + 42) + be32(p + 46) != bytes.size()) __builtin_trap();
  if (bytes.compare(be32(p + 30), be32(p + 34), std::string(info.begin(), info.end())) != 0)
    __builtin_trap();
  if (slurp(f.path + "/victim") != "keep") __builtin_trap();
  return 0;
}
