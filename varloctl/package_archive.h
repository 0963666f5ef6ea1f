// The agent's update as it expects it: a gzip tar holding the folder
// "Varlo.pkg" with the package file in it. Made in memory: a ustar archive
// inside gzip's stored (uncompressed) blocks, since a package is compressed
// already and no library is needed for that.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace varloctl {

// The archive holding "Varlo.pkg/" and "Varlo.pkg/name" with these bytes;
// mtime in Unix seconds for both. name must be a plain file name of at most
// 100 bytes.
std::vector<std::uint8_t> packageArchive(const std::string& name,
                                         const std::vector<std::uint8_t>& package,
                                         std::int64_t mtime);

// CRC-32 as gzip uses it, over data, continuing from crc.
std::uint32_t crc32(const std::uint8_t* data, std::size_t len, std::uint32_t crc = 0);

}  // namespace varloctl
