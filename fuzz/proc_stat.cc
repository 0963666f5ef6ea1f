// A process's stat file. A parse that succeeds converted all eight values
// and gives a name of at most 32 characters that stops before any ')'; one
// that fails says how many it converted and leaves an empty entry. The
// entry goes through its wire record unchanged, and a line shaped as the
// kernel writes it gives back the values it was made of.
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "inventory/process_info.h"

using varlo::varlo_proc;

namespace {

std::uint64_t takeNumber(const std::uint8_t*& data, std::size_t& size, std::size_t bytes) {
  std::uint64_t v = 0;
  for (; bytes > 0 && size > 0; --bytes, --size) v = v << 8 | *data++;
  return v;
}

// A stat line as the kernel writes it, its values and its name (up to 15
// bytes, any but NUL: blanks, parentheses and line breaks included) taken
// from the input, must give exactly those values back.
void kernelShaped(const std::uint8_t* data, std::size_t size) {
  const auto pid = static_cast<int>(takeNumber(data, size, 3) % 4194304 + 1);
  const std::uint64_t vsize = takeNumber(data, size, 8);
  const auto cutime = static_cast<long>(takeNumber(data, size, 4));
  const auto cstime = static_cast<long>(takeNumber(data, size, 4));
  std::string comm(reinterpret_cast<const char*>(data), std::min<std::size_t>(size, 15));
  for (char& c : comm)
    if (c == '\0') c = '@';

  char numbers[512];
  std::snprintf(numbers, sizeof numbers,
                " S 1 %d %d 0 -1 4194560 9186 1185551 0 201 4 8 %ld %ld 20 0 1 0 395388 %llu 952 "
                "18446744073709551615 94252556120064 0 0 0 17 0 0 0\n",
                pid, pid, cutime, cstime, static_cast<unsigned long long>(vsize));
  const std::string line = std::to_string(pid) + " (" + comm + ")" + numbers;

  varlo_proc entry;
  int stored = 0;
  if (CProcessInfo::parseStatText(line, entry, stored) != 0 || stored != 8) __builtin_trap();
  // The name stops at its first ')', as the console has always been sent it.
  if (entry.name != comm.substr(0, comm.find(')'))) __builtin_trap();
  if (entry.id != static_cast<std::uint32_t>(pid)) __builtin_trap();
  if (entry.size != std::min<std::uint64_t>(vsize, UINT32_MAX)) __builtin_trap();
  long ticks = sysconf(_SC_CLK_TCK);
  if (ticks <= 0) ticks = 1;
  const auto secs = static_cast<std::uint64_t>(cutime + cstime) / static_cast<std::uint64_t>(ticks);
  if (entry.cpuSecs != std::min<std::uint64_t>(secs, UINT32_MAX)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kernelShaped(data, size);
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
