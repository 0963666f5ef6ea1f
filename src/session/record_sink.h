// Where a command's reply records go: the worker's session in the agent, a
// byte buffer in tests. A non-zero result means the records can no longer be
// delivered, and the sender stops.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

using RecordSink = std::function<int(const std::uint8_t* data, std::size_t len)>;
