// The parser of an rtnetlink route dump, apart so that it can be fed any
// bytes: only the kernel writes the buffer, but nothing in it is trusted.
#pragma once

#include <cstddef>
#include <vector>

#include "inventory/net_source.h"

namespace route_dump {

enum class Status { More, Done, Error };

// Parses one received buffer of an RTM_GETROUTE dump, appending every
// unicast default route of the main table (one per next hop of a multipath
// route). seq and portid 0 accept messages from anyone.
Status parse(const void* buf, std::size_t len, unsigned seq, unsigned portid,
             std::vector<DefaultRoute>& out);

}  // namespace route_dump
