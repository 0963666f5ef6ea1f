// Lines of mountinfo and the octal escapes of their paths. A path escaped
// as the kernel escapes it decodes to itself, decoding never makes a field
// longer, and a line built around an escaped path gives that path and type.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "inventory/hd_info.h"

namespace {

// Blank, tab, line feed and backslash become \ooo, as in the kernel's
// mangling of mount paths.
std::string escaped(const std::string& path) {
  std::string out;
  for (const char c : path) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\\') {
      char octal[5];
      std::snprintf(octal, sizeof octal, "\\%03o", static_cast<unsigned char>(c));
      out += octal;
    } else {
      out += c;
    }
  }
  return out;
}

bool hasBlank(const std::string& s) {
  return s.find_first_of(" \t\n\v\f\r") != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  const std::string decoded = CHDInfo::unescapeMountPath(text);
  if (decoded.size() > text.size()) __builtin_trap();
  if (CHDInfo::unescapeMountPath(escaped(text)) != text) __builtin_trap();

  CHDInfo::Mount m;
  if (CHDInfo::parseMountLine(text, m)) {
    if (m.mountPoint.empty() || m.type.empty()) __builtin_trap();
    if (hasBlank(m.type)) __builtin_trap();
    if (text.find(m.type) == std::string::npos) __builtin_trap();
  }

  // The input as the mount point of a well-formed line. The stream reader
  // splits on the blanks of the C locale, \v and \f among them, which the
  // kernel leaves unescaped: a path holding one is no path of this test.
  if (!text.empty() && text.find_first_of("\v\f\r") == std::string::npos) {
    const std::string line = "36 35 98:0 /mnt1 " + escaped(text) +
                             " rw,noatime master:1 - ext3 /dev/root rw,errors=continue";
    CHDInfo::Mount built;
    if (!CHDInfo::parseMountLine(line, built)) __builtin_trap();
    if (built.mountPoint != text || built.type != "ext3") __builtin_trap();
  }
  return 0;
}
