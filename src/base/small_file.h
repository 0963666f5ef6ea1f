// Reads the small files the host describes itself in (procfs, sysfs,
// /etc): opened non-blocking, so that a FIFO planted where a file belongs
// cannot stall the reader, and never read past a bound.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

// Up to maxBytes of the file; nullopt when it cannot be opened, or when
// nothing at all could be read because of an error.
std::optional<std::string> readSmallFile(const std::string& path, std::size_t maxBytes = 65536);

// Its first line, without the newline.
std::optional<std::string> readFirstLine(const std::string& path, std::size_t maxBytes = 4096);
