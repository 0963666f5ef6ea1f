// Desktop entries: whatever the bytes, the reader returns, and what it
// returns is consistent with them.
#include <cstddef>
#include <cstdint>
#include <string>

#include "software/desktop_entry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const DesktopEntry e = DesktopEntry::parse(text);
  // Escapes only ever shorten.
  if (e.name.size() > text.size()) __builtin_trap();
  if (!e.hasGroup && (!e.name.empty() || !e.categories.empty() || e.hidden)) __builtin_trap();
  if (e.hasGroup && text.find("[Desktop Entry]") == std::string::npos) __builtin_trap();
  for (const std::string& c : e.categories) {
    if (c.empty() || c.front() == ' ' || c.back() == ' ') __builtin_trap();
    if (!e.inCategory(c)) __builtin_trap();
  }
  // The same entry behind a group of another name is not read.
  const DesktopEntry other = DesktopEntry::parse("[Other]\n" + text);
  if (other.name != e.name && text.find('[') == std::string::npos) __builtin_trap();
  return 0;
}
