#include "inventory/netinfo.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "base/util.h"

namespace {

constexpr std::size_t kHwLen = sizeof(CNetInfo::netdata::hw_addr);

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

}  // namespace

CNetInfo::CNetInfo(std::shared_ptr<NetSource> source)
    : pos_(interfaces_.end()),
      source_(source ? std::move(source) : std::make_shared<SystemNetSource>()) {}

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

  for (const ifaddrs* ifa = list.get(); ifa != nullptr; ifa = ifa->ifa_next) {
    if (ifa->ifa_name == nullptr) continue;
    const auto [it, added] = interfaces_.try_emplace(ifa->ifa_name);
    if (!added) continue;
    // The kernel's own index: indexes have gaps once any interface was
    // removed (containers, VPNs), so a count of names would hand one
    // interface another's gateway.
    it->second = buildEntry(ifa, it->first, source_->indexOf(it->first));
  }

  reuseRoutes_ = false;
  routes_.reset();
  pos_ = interfaces_.begin();
  return 0;
}

std::optional<CNetInfo::netdata> CNetInfo::buildEntry(const ifaddrs* from,
                                                      const std::string& name,
                                                      unsigned index) {
  netdata entry;
  if (getIPAddress(from, name, entry.ip_addr) != 0 || Util::isValidIP(entry.ip_addr) == 0)
    return std::nullopt;
  unsigned long gateway = 0;
  if (getGatewayAddr(index, gateway) != 0) return std::nullopt;
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

int CNetInfo::getGatewayAddr(unsigned index, unsigned long& gateway) {
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
    if (index != 0 && static_cast<unsigned>(r.oif) == index) {
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
