// Pascal strings to C strings and back, on buffers sized exactly as the
// rules of each direction allow, so a byte read or written past them is
// caught: PtoCString reads the length byte and at most max characters and
// writes len + 1 bytes; CtoPString writes at most max bytes (256 at most).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "base/util.h"

namespace {

void pascalToC(const std::uint8_t* data, std::size_t size, int max) {
  if (size < 1) return;
  const std::size_t len = data[0];
  const std::size_t copied = max < 0 ? 0 : std::min<std::size_t>(len, static_cast<std::size_t>(max));
  if (size - 1 < copied) return;  // the source would not hold what may be read
  const std::vector<char> src(data, data + 1 + copied);
  std::vector<char> dst(len + 1, 'x');
  Util::PtoCString(src.data(), dst.data(), max);
  if (dst[len] != '\0') __builtin_trap();
  if (std::memcmp(dst.data(), src.data() + 1, copied) != 0) __builtin_trap();
}

void cToPascal(const std::uint8_t* data, std::size_t size, int max) {
  // The characters up to the first NUL, terminated, on the heap.
  const std::string text(reinterpret_cast<const char*>(data),
                         strnlen(reinterpret_cast<const char*>(data), size));
  const std::vector<char> src(text.c_str(), text.c_str() + text.size() + 1);
  if (max < 1) {
    char untouched = 'x';
    Util::CtoPString(src.data(), &untouched, max);
    if (untouched != 'x') __builtin_trap();
    return;
  }
  const std::size_t field = std::min(max, 256);
  std::vector<char> dst(field, 'x');
  Util::CtoPString(src.data(), dst.data(), max);
  const std::size_t len = static_cast<unsigned char>(dst[0]);
  if (len != std::min(text.size(), field - 1)) __builtin_trap();
  if (std::memcmp(dst.data() + 1, text.data(), len) != 0) __builtin_trap();

  // And back: the C string that went in, cut to what the field held.
  std::vector<char> back(len + 1, 'x');
  Util::PtoCString(dst.data(), back.data(), max);
  if (std::string(back.data()) != text.substr(0, len)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  // max from -64 to 319: the limits and past them on both sides.
  const int max = static_cast<int>((data[0] << 8 | data[1]) % 384) - 64;
  pascalToC(data + 2, size - 2, max);
  cToPascal(data + 2, size - 2, max);
  return 0;
}
