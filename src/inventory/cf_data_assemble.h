// Renders a registry data property as text for a record: printable data
// stays text (zero-separated runs joined by ","), anything else becomes
// lower-case hex, two digits a byte.
#pragma once

#include <array>
#include <cstdint>
#include <span>

// out always ends up a terminated C string of at most 254 characters.
void CFDataAssemble(std::span<const std::uint8_t> data, std::array<char, 255>& out);
