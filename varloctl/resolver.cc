#include "varloctl/resolver.h"

#include <netdb.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>

#include "varloctl/ctl_error.h"

namespace varloctl {

std::vector<sockaddr_in> resolveIPv4(const std::string& host, std::uint16_t port) {
  if (host.empty()) throw usageError("empty host name");
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;  // one entry per address; the type is not used
  addrinfo* found = nullptr;
  const int rc = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (rc != 0) throw CtlError(kUnreachable, "cannot resolve '" + host + "': " + gai_strerror(rc));
  std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);

  std::vector<sockaddr_in> out;
  for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
    if (a->ai_family != AF_INET || a->ai_addrlen < sizeof(sockaddr_in)) continue;
    sockaddr_in sin;
    std::memcpy(&sin, a->ai_addr, sizeof sin);
    sin.sin_port = htons(port);
    out.push_back(sin);
  }
  if (out.empty()) throw CtlError(kUnreachable, "'" + host + "' has no IPv4 address");
  return out;
}

}  // namespace varloctl
