// A process's stat file. A parse that succeeds converted all eight values
// and gives a name of at most 32 characters that stops before any ')'; one
// that fails says how many it converted and leaves an empty entry. The entry goes through its wire
// record unchanged.
#include <cstddef>
#include <cstdint>
#include <string>

#include "inventory/process_info.h"

using varlo::varlo_proc;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  varlo_proc entry;
  entry.name = "stale";
  int stored = -1;
  const int result = CProcessInfo::parseStatText(text, entry, stored);
  if (result != 0 && result != -1) __builtin_trap();
  if (stored < 0 || stored > 8) __builtin_trap();
  if (result == -1) {
    if (stored == 8) __builtin_trap();
    // A failed parse leaves an empty entry behind.
    if (!entry.name.empty() || entry.id != 0) __builtin_trap();
    return 0;
  }
  if (stored != 8) __builtin_trap();
  if (entry.name.size() > varlo_proc::kMaxName) __builtin_trap();
  if (entry.name.find(')') != std::string::npos) __builtin_trap();
  if (entry.name.find('\0') != std::string::npos) __builtin_trap();
  if (entry.type != varlo_proc::kTypeAppl || entry.reserved != 0) __builtin_trap();
  // The name is text of the line.
  if (text.find(entry.name) == std::string::npos) __builtin_trap();

  const auto wire = entry.encode();
  const varlo_proc back = varlo_proc::decodeAt(wire.data());
  if (back.name != entry.name || back.type != entry.type || back.size != entry.size ||
      back.cpuSecs != entry.cpuSecs || back.reserved != entry.reserved || back.id != entry.id)
    __builtin_trap();
  return 0;
}
