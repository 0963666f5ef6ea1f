// IPv4 socket addresses for a host name or a dotted address.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

namespace varloctl {

// At least one address, in the resolver's order; throws an unreachable
// CtlError when the name does not resolve.
std::vector<sockaddr_in> resolveIPv4(const std::string& host, std::uint16_t port);

}  // namespace varloctl
