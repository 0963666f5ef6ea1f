// Names of files turned into list entries. parseName: the name is a piece
// of the file name before the suffix, the version its tail or "0", at any
// suffix position. getExtension and the profiler's getFileExt: the text
// after the name's last '.', within their length limits, as a plain
// reading of the rule gives it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "software/bprofiler.h"
#include "software/extensions.h"
#include "software/file_ext.h"

namespace {

// The extension rule spelt out: after the last '/', the text after the
// last '.', when it has at most `limit` characters.
std::string expectedExtension(const std::string& path, std::size_t limit) {
  const std::size_t slash = path.rfind('/');
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos || name.size() - dot - 1 > limit) return {};
  return name.substr(dot + 1);
}

}  // namespace

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

  std::string ext = "stale";
  CFileExt::getExtension(file, ext);
  if (ext != expectedExtension(file, 5)) __builtin_trap();
  if (file.find('/') == std::string::npos) {
    CBProfiler::getFileExt(file, ext);
    const bool dotless = file.find('.') == std::string::npos;
    if (ext != (dotless ? (file.size() <= 4 ? file : "") : expectedExtension(file, 4)))
      __builtin_trap();
  }

  const auto dylib = file.find(".dylib");
  if (dylib != std::string::npos) {
    CExtensions::parseName(file, dylib, name, version);
    const bool lib = file.compare(0, 3, "lib") == 0;
    if (name != file.substr(lib ? 3 : 0, dylib - (lib ? 3 : 0))) __builtin_trap();
    if (version != (dylib + 4 < file.size() ? file.substr(dylib + 4) : "0")) __builtin_trap();
  }
  return 0;
}
