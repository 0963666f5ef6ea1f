#include "varloctl/wire_text.h"

#include <cstdio>

namespace varloctl {

std::string dotted(std::uint32_t a) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", a >> 24, (a >> 16) & 0xFF, (a >> 8) & 0xFF,
                a & 0xFF);
  return buf;
}

std::string hardwareAddress(const std::array<std::uint8_t, 6>& hw) {
  char buf[18];
  std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", hw[0], hw[1], hw[2], hw[3], hw[4],
                hw[5]);
  return buf;
}

std::string agentVersion(std::uint32_t v) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "%x.%x.%x", v >> 8, (v >> 4) & 0xF, v & 0xF);
  return buf;
}

std::string osVersion(std::uint32_t v) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "%u.%u.%u", v >> 8, (v >> 4) & 0xF, v & 0xF);
  return buf;
}

std::string secondsText(int ms) {
  char buf[32];
  if (ms % 1000 == 0)
    std::snprintf(buf, sizeof buf, "%d s", ms / 1000);
  else
    std::snprintf(buf, sizeof buf, "%g s", ms / 1000.0);
  return buf;
}

}  // namespace varloctl
