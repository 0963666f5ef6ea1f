// Names of files turned into list entries. parseName: the name is a piece
// of the file name before the suffix, the version its tail or "0", at any
// suffix position.
#include <cstddef>
#include <cstdint>
#include <string>

#include "software/extensions.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::size_t pos = data[0];
  const std::string file(reinterpret_cast<const char*>(data + 1), size - 1);

  std::string name, version;
  CExtensions::parseName(file, pos, name, version);
  if (name.size() > file.size() || file.find(name) == std::string::npos) __builtin_trap();
  if (version != "0" && (version.size() >= file.size() ||
                         file.compare(file.size() - version.size(), version.size(), version) != 0))
    __builtin_trap();

  const auto dylib = file.find(".dylib");
  if (dylib != std::string::npos) {
    CExtensions::parseName(file, dylib, name, version);
    const bool lib = file.compare(0, 3, "lib") == 0;
    if (name != file.substr(lib ? 3 : 0, dylib - (lib ? 3 : 0))) __builtin_trap();
    if (version != (dylib + 4 < file.size() ? file.substr(dylib + 4) : "0")) __builtin_trap();
  }
  return 0;
}
