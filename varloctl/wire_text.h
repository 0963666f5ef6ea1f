// Readable forms of the numbers the agent sends.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace varloctl {

// 0xC0000201 -> "192.0.2.1" (addresses arrive as big-endian numbers).
std::string dotted(std::uint32_t address);

// "aa:bb:cc:dd:ee:ff"
std::string hardwareAddress(const std::array<std::uint8_t, 6>& hw);

// One hexadecimal digit a part: 0x560 -> "5.6.0".
std::string agentVersion(std::uint32_t v);

// Major in bits 8 and up, minor and patch a nibble each: 0x0A39 -> "10.3.9".
std::string osVersion(std::uint32_t v);

// Milliseconds as seconds for messages: 2000 -> "2 s", 250 -> "0.25 s".
std::string secondsText(int ms);

}  // namespace varloctl
