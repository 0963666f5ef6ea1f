#include "netinfo.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include "util.h"
#include "vllog.h"

namespace {

// The kernel sizes dump messages to the reader's buffer, up to 32 KiB.
constexpr std::size_t kDumpBufferSize = 32768;
constexpr int kDumpAttempts = 3;  // a dump interrupted by a table change is retried
constexpr auto kDumpDeadline = std::chrono::seconds(3);
constexpr std::size_t kHwLen = sizeof(CNetInfo::netdata::hw_addr);

struct MnlCloser {
  void operator()(mnl_socket* s) const { mnl_socket_close(s); }
};
using MnlSocket = std::unique_ptr<mnl_socket, MnlCloser>;

bool named(const ifaddrs* ifa, const std::string& name) {
  return ifa->ifa_name != nullptr && name == ifa->ifa_name;
}

// The first element from `from` on named `name` whose ifa_addr is of family.
const ifaddrs* findFamily(const ifaddrs* from, const std::string& name, int family) {
  for (const ifaddrs* ifa = from; ifa != nullptr; ifa = ifa->ifa_next) {
    if (named(ifa, name) && ifa->ifa_addr != nullptr && ifa->ifa_addr->sa_family == family)
      return ifa;
  }
  return nullptr;
}

std::uint32_t hostOrder(const sockaddr* sa) {
  sockaddr_in sin;
  std::memcpy(&sin, sa, sizeof sin);
  return ntohl(sin.sin_addr.s_addr);
}

// Attributes of one route message, or of one next hop.
struct RouteAttrs {
  const nlattr* oif = nullptr;
  const nlattr* gateway = nullptr;
  const nlattr* table = nullptr;
  const nlattr* multipath = nullptr;
};

int collectAttr(const nlattr* attr, void* data) {
  auto* a = static_cast<RouteAttrs*>(data);
  switch (mnl_attr_get_type(attr)) {
    case RTA_OIF:
    case RTA_GATEWAY:
    case RTA_TABLE:
      if (mnl_attr_validate(attr, MNL_TYPE_U32) < 0) return MNL_CB_ERROR;
      break;
    default:
      break;
  }
  switch (mnl_attr_get_type(attr)) {
    case RTA_OIF: a->oif = attr; break;
    case RTA_GATEWAY: a->gateway = attr; break;
    case RTA_TABLE: a->table = attr; break;
    case RTA_MULTIPATH: a->multipath = attr; break;
    default: break;
  }
  return MNL_CB_OK;
}

std::uint32_t gatewayOf(const RouteAttrs& a) {
  return a.gateway != nullptr ? ntohl(mnl_attr_get_u32(a.gateway)) : 0;
}

// RTA_MULTIPATH holds rtnexthop records, each followed by its own attributes.
int collectNextHops(const nlattr* multipath, std::vector<DefaultRoute>& out) {
  const auto* p = static_cast<const unsigned char*>(mnl_attr_get_payload(multipath));
  std::size_t left = mnl_attr_get_payload_len(multipath);
  while (left >= sizeof(rtnexthop)) {
    rtnexthop nh;
    std::memcpy(&nh, p, sizeof nh);
    if (nh.rtnh_len < sizeof(rtnexthop) || nh.rtnh_len > left) return MNL_CB_ERROR;
    RouteAttrs a;
    if (mnl_attr_parse_payload(p + sizeof nh, nh.rtnh_len - sizeof nh, collectAttr, &a) < 0)
      return MNL_CB_ERROR;
    out.push_back({nh.rtnh_ifindex, gatewayOf(a)});
    const std::size_t step = std::min<std::size_t>(RTNH_ALIGN(nh.rtnh_len), left);
    p += step;
    left -= step;
  }
  return MNL_CB_OK;
}

int collectRoute(const nlmsghdr* nlh, void* data) {
  auto& out = *static_cast<std::vector<DefaultRoute>*>(data);
  if (nlh->nlmsg_type != RTM_NEWROUTE) return MNL_CB_OK;
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(rtmsg)) {
    errno = EBADMSG;
    return MNL_CB_ERROR;
  }
  rtmsg rtm;
  std::memcpy(&rtm, mnl_nlmsg_get_payload(nlh), sizeof rtm);
  if (rtm.rtm_family != AF_INET || rtm.rtm_dst_len != 0 || rtm.rtm_type != RTN_UNICAST)
    return MNL_CB_OK;

  RouteAttrs a;
  if (mnl_attr_parse(nlh, sizeof(rtmsg), collectAttr, &a) < 0) {
    errno = EBADMSG;
    return MNL_CB_ERROR;
  }
  // rtm_table is 8 bits wide; RTA_TABLE carries the full id when present.
  const std::uint32_t table = a.table != nullptr ? mnl_attr_get_u32(a.table) : rtm.rtm_table;
  if (table != RT_TABLE_MAIN) return MNL_CB_OK;

  if (a.oif != nullptr) {
    out.push_back({static_cast<int>(mnl_attr_get_u32(a.oif)), gatewayOf(a)});
  } else if (a.multipath != nullptr && collectNextHops(a.multipath, out) != MNL_CB_OK) {
    errno = EBADMSG;
    return MNL_CB_ERROR;
  }
  return MNL_CB_OK;
}

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

route_dump::Status route_dump::parse(const void* buf, std::size_t len, unsigned seq,
                                     unsigned portid, std::vector<DefaultRoute>& out) {
  const int ret = mnl_cb_run(buf, len, seq, portid, collectRoute, &out);
  if (ret == MNL_CB_ERROR) return Status::Error;
  if (ret == MNL_CB_STOP) return Status::Done;
  return Status::More;
}

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

CNetInfo::CNetInfo(int socket) : CNetInfo(socket, std::make_shared<SystemNetSource>()) {}

CNetInfo::CNetInfo(int socket, std::shared_ptr<NetSource> source)
    : socket_(socket), pos_(interfaces_.end()), source_(std::move(source)) {}

int CNetInfo::getInterfaceList(NetSource::InterfaceList& list) {
  if (!source_) return -1;
  list = source_->interfaces();
  return list ? 0 : -1;
}

int CNetInfo::enumInterfaces() {
  interfaces_.clear();
  pos_ = interfaces_.end();
  NetSource::InterfaceList list(nullptr, freeifaddrs);
  if (getInterfaceList(list) != 0) return -1;

  reuseRoutes_ = true;
  routesFetched_ = false;
  routes_.reset();

  // Interfaces are taken to appear in the order of their system indexes
  // starting at 1, so the count of distinct names stands in for the index.
  std::uint16_t counter = 0;
  for (const ifaddrs* ifa = list.get(); ifa != nullptr; ifa = ifa->ifa_next) {
    if (ifa->ifa_name == nullptr) continue;
    const auto [it, added] = interfaces_.try_emplace(ifa->ifa_name);
    if (!added) continue;
    ++counter;
    it->second = buildEntry(ifa, it->first, counter);
  }

  reuseRoutes_ = false;
  routes_.reset();
  pos_ = interfaces_.begin();
  return 0;
}

std::optional<CNetInfo::netdata> CNetInfo::buildEntry(const ifaddrs* from,
                                                      const std::string& name,
                                                      std::uint16_t index) {
  netdata entry;
  if (getIPAddress(from, name, entry.ip_addr) != 0 || Util::isValidIP(entry.ip_addr) == 0)
    return std::nullopt;
  unsigned long gateway = 0;
  if (getGatewayAddr(static_cast<short>(index), gateway) != 0) return std::nullopt;
  entry.gateway_addr = static_cast<std::uint32_t>(gateway);
  if (getNetMask(from, name, entry.net_mask) != 0) return std::nullopt;
  if (getHwAddress(from, name, entry.hw_addr, kHwLen) != 0) return std::nullopt;
  getIP6Address(from, name, entry.ip6_addr);
  getATInfo(entry);
  return entry;
}

void CNetInfo::rewind() { pos_ = interfaces_.begin(); }

int CNetInfo::getNextInterface(unsigned long& address, unsigned long& gateway,
                               unsigned long& netmask, unsigned char* hwAddr,
                               unsigned long hwLen) {
  while (pos_ != interfaces_.end() && !pos_->second) ++pos_;
  if (pos_ == interfaces_.end()) return 512;
  const netdata& e = *pos_->second;
  address = e.ip_addr;
  gateway = e.gateway_addr;
  netmask = e.net_mask;
  if (hwAddr != nullptr) std::memcpy(hwAddr, e.hw_addr, std::min<unsigned long>(hwLen, kHwLen));
  atNet_ = e.at_net;
  atNode_ = e.at_node;
  atZone_.assign(e.at_zone, strnlen(e.at_zone, sizeof e.at_zone));
  ++pos_;
  return 0;
}

int CNetInfo::getATInterface(unsigned short& net, unsigned char& node, std::string& zone) {
  net = atNet_;
  node = atNode_;
  zone = atZone_;
  return 1;
}

int CNetInfo::getGatewayAddr(short index, unsigned long& gateway) {
  gateway = 0;
  std::optional<std::vector<DefaultRoute>> fresh;
  const std::optional<std::vector<DefaultRoute>>* routes = &fresh;
  if (reuseRoutes_) {
    if (!routesFetched_) {
      routes_ = source_->defaultRoutes();
      routesFetched_ = true;
    }
    routes = &routes_;
  } else {
    fresh = source_->defaultRoutes();
  }
  if (!*routes) return -1;
  for (const DefaultRoute& r : **routes) {
    if (r.oif == index) {
      gateway = r.gateway;
      break;
    }
  }
  return 0;
}

int CNetInfo::getIPAddress(const ifaddrs* from, const std::string& name, std::uint32_t& addr) {
  const ifaddrs* ifa = findFamily(from, name, AF_INET);
  if (ifa == nullptr) return -1;
  addr = hostOrder(ifa->ifa_addr);
  return 0;
}

int CNetInfo::getNetMask(const ifaddrs* from, const std::string& name, std::uint32_t& mask) {
  for (const ifaddrs* ifa = from; ifa != nullptr; ifa = ifa->ifa_next) {
    if (named(ifa, name) && ifa->ifa_netmask != nullptr &&
        ifa->ifa_netmask->sa_family == AF_INET) {
      mask = hostOrder(ifa->ifa_netmask);
      return 0;
    }
  }
  return -1;
}

int CNetInfo::getHwAddress(const ifaddrs* from, const std::string& name, unsigned char* out,
                           unsigned long len) {
  const ifaddrs* ifa = findFamily(from, name, AF_PACKET);
  if (ifa == nullptr || out == nullptr) return -1;
  sockaddr_ll sll;
  std::memcpy(&sll, ifa->ifa_addr, sizeof sll);
  if (sll.sll_halen == 0) return -1;
  std::memcpy(out, sll.sll_addr, std::min<unsigned long>({sll.sll_halen, len, kHwLen}));
  return 0;
}

int CNetInfo::getIP6Address(const ifaddrs* from, const std::string& name, unsigned char* out) {
  const ifaddrs* ifa = findFamily(from, name, AF_INET6);
  if (ifa == nullptr || out == nullptr) return -1;
  sockaddr_in6 sin6;
  std::memcpy(&sin6, ifa->ifa_addr, sizeof sin6);
  std::memcpy(out, &sin6.sin6_addr, sizeof sin6.sin6_addr);
  return 0;
}

int CNetInfo::getATInfo(netdata& entry) {
  entry.at_net = 0;
  entry.at_node = 0;
  entry.at_zone[0] = '\0';
  return -1;
}
