// The preferences file as the reader takes it apart. Every key is one word
// of the line, every value fits the reader's line limit, and the values
// written back the way the agent writes its file read back unchanged.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "prefs/prefs.h"

namespace {

constexpr const char* kBlanks = " \t\r\f\v";

// The file as the agent writes it: "key value" lines, a line break inside a
// value put out as a blank.
std::string written(const std::map<std::string, std::string>& values) {
  std::string text;
  for (const auto& [key, value] : values) {
    std::string oneLine = value;
    for (char& c : oneLine)
      if (c == '\n' || c == '\r') c = ' ';
    text += key + " " + oneLine + "\n";
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::map<std::string, std::string> values;
  CPrefs::parsePrefs(text, values);

  for (const auto& [key, value] : values) {
    if (key.empty()) __builtin_trap();
    if (key.find_first_of(kBlanks) != std::string::npos) __builtin_trap();
    if (key.find('\n') != std::string::npos || value.find('\n') != std::string::npos)
      __builtin_trap();
    if (value.size() > CPrefs::kLineLimit - 2) __builtin_trap();
    // A key is a word the text holds.
    if (text.find(key) == std::string::npos) __builtin_trap();
  }
  // At most one key a line.
  if (values.size() > static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1)
    __builtin_trap();

  std::map<std::string, std::string> normal;
  for (const auto& [key, value] : values) {
    std::string v = value;
    for (char& c : v)
      if (c == '\r') c = ' ';
    normal.emplace(key, v);
  }
  std::map<std::string, std::string> again;
  CPrefs::parsePrefs(written(values), again);
  if (again != normal) __builtin_trap();
  return 0;
}
