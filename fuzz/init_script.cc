// Init scripts: the service named is a piece of the script, never empty,
// never holds a '/' or a '$', and whitespace around words changes nothing.
#include <cstddef>
#include <cstdint>
#include <string>

#include "software/init_script.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string service;
  const CInitScript::Verdict v = CInitScript::serviceOf(text, service);
  if (v == CInitScript::Verdict::kService) {
    if (service.empty() || text.find(service) == std::string::npos) __builtin_trap();
    if (service.find_first_of("/$ \t\n\v\f\r") != std::string::npos) __builtin_trap();
  } else if (!service.empty()) {
    __builtin_trap();
  }
  std::string padded;
  const CInitScript::Verdict w = CInitScript::serviceOf("\n\t " + text + " \n", padded);
  if (w != v || padded != service) __builtin_trap();
  return 0;
}
