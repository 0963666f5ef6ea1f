#include "inventory/net_source.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <string>

#include "core/vllog.h"
#include "inventory/route_dump.h"

namespace {

// The kernel sizes dump messages to the reader's buffer, up to 32 KiB.
constexpr std::size_t kDumpBufferSize = 32768;
constexpr int kDumpAttempts = 3;  // a dump interrupted by a table change is retried
constexpr auto kDumpDeadline = std::chrono::seconds(3);

struct MnlCloser {
  void operator()(mnl_socket* s) const { mnl_socket_close(s); }
};
using MnlSocket = std::unique_ptr<mnl_socket, MnlCloser>;

// Bound and with a receive timeout; null with errno set on failure.
MnlSocket openRouteSocket() {
  MnlSocket nl(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
  if (!nl) return nl;
  // The kernel answers at once; the timeout only keeps a misbehaving netlink
  // layer from leaving the worker blocked for good.
  const timeval timeout{1, 0};
  if (mnl_socket_bind(nl.get(), 0, MNL_SOCKET_AUTOPID) < 0 ||
      setsockopt(mnl_socket_get_fd(nl.get()), SOL_SOCKET, SO_RCVTIMEO, &timeout,
                 sizeof timeout) != 0) {
    const int err = errno;
    nl.reset();
    errno = err;
  }
  return nl;
}

// One complete dump; nullopt with errno set on any failure.
std::optional<std::vector<DefaultRoute>> dumpDefaultRoutes(mnl_socket* nl, unsigned seq) {
  std::vector<char> buf(kDumpBufferSize);
  nlmsghdr* nlh = mnl_nlmsg_put_header(buf.data());
  nlh->nlmsg_type = RTM_GETROUTE;
  nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  nlh->nlmsg_seq = seq;
  auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
  rtm->rtm_family = AF_INET;
  if (mnl_socket_sendto(nl, nlh, nlh->nlmsg_len) < 0) return std::nullopt;

  const unsigned portid = mnl_socket_get_portid(nl);
  const auto deadline = std::chrono::steady_clock::now() + kDumpDeadline;
  std::vector<DefaultRoute> routes;
  for (;;) {
    // Each receive is bounded by SO_RCVTIMEO; the deadline bounds the whole dump.
    if (std::chrono::steady_clock::now() > deadline) {
      errno = ETIMEDOUT;
      return std::nullopt;
    }
    const ssize_t got = mnl_socket_recvfrom(nl, buf.data(), buf.size());
    if (got < 0) return std::nullopt;
    if (got == 0) {
      errno = EPROTO;
      return std::nullopt;
    }
    switch (route_dump::parse(buf.data(), static_cast<std::size_t>(got), seq, portid, routes)) {
      case route_dump::Status::Done: return routes;
      case route_dump::Status::Error: return std::nullopt;
      case route_dump::Status::More: break;
    }
  }
}

}  // namespace

NetSource::InterfaceList SystemNetSource::interfaces() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) list = nullptr;
  return InterfaceList(list, freeifaddrs);
}

std::optional<std::vector<DefaultRoute>> SystemNetSource::defaultRoutes() {
  int err = 0;
  for (int attempt = 1; attempt <= kDumpAttempts; ++attempt) {
    // A fresh socket each time: an abandoned dump may still be queued on the old one.
    MnlSocket nl = openRouteSocket();
    if (!nl) {
      err = errno;
      break;
    }
    std::optional<std::vector<DefaultRoute>> routes = dumpDefaultRoutes(nl.get(), attempt);
    if (routes) return routes;
    err = errno;
    // Only a dump interrupted by a table change is worth another try.
    if (err != EINTR) break;
  }
  Log->LogMessage("Could not read the routing table.  Error: " + std::to_string(err));
  return std::nullopt;
}

unsigned SystemNetSource::indexOf(const std::string& name) { return if_nametoindex(name.c_str()); }
